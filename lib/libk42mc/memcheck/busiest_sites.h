// Which sites get a place where there is room for some: those of most allocations, as far as powers of two tell them
// apart, and of the last of these, whoever asks first.
#pragma once

#include <bit>
#include <stdint.h>

namespace k42mc::internal {

class BusiestSites {
public:
    // First all are counted.
    void count(uint64_t allocations) { ++with_rank_[rank(allocations)]; }

    void choose(uint32_t room) {
        left_ = room;
        for (last_ = most_ranks - 1; last_ != 0 && with_rank_[last_] <= left_; --last_)
            left_ -= with_rank_[last_];
    }

    // Then each asks once. One without allocations gets none.
    bool take(uint64_t allocations) {
        const unsigned asking = rank(allocations);
        if (asking != last_ || asking == 0 || left_ == 0)
            return asking > last_;
        --left_;
        return true;
    }

private:
    static constexpr unsigned most_ranks = 65;

    static unsigned rank(uint64_t allocations) {
        return static_cast<unsigned>(std::bit_width(allocations));
    }

    uint32_t with_rank_[most_ranks] = {};
    unsigned last_ = 0; // of those that get one
    uint32_t left_ = 0; // for that rank
};

} // namespace k42mc::internal
