// What was allocated at a site since the counters were last reset, and what of that has outlived a cycle.
#pragma once

#include "memcheck/traffic.h"

#include <atomic>
#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

// A sum that threads add to without a lock; exact while none does. In halves: 32 bits have no quick addition of 64.
class SharedSum {
public:
    void add(uint64_t amount) {
        const auto low = static_cast<uint32_t>(amount);
        const uint32_t before = low_.fetch_add(low, std::memory_order_relaxed);
        const bool carry = before + low < before;
        if (const uint32_t high = static_cast<uint32_t>(amount >> 32) + carry)
            high_.fetch_add(high, std::memory_order_relaxed);
    }

    uint64_t value() const {
        return uint64_t{high_.load(std::memory_order_relaxed)} << 32 |
               low_.load(std::memory_order_relaxed);
    }

    // Where it is nothing, memory that is shared with a parent stays so.
    void reset() {
        if (value() == 0)
            return;
        low_.store(0, std::memory_order_relaxed);
        high_.store(0, std::memory_order_relaxed);
    }

private:
    std::atomic<uint32_t> low_ = 0, high_ = 0;
};

class SharedCounter {
public:
    void add(const MCCounter &counted) {
        blocks_.add(counted.count);
        bytes_.add(counted.bytes);
    }
    MCCounter value() const { return {blocks_.value(), bytes_.value()}; }
    void reset() {
        blocks_.reset();
        bytes_.reset();
    }

private:
    SharedSum blocks_, bytes_;
};

struct SiteCounts {
    SharedCounter allocated;
    SharedCounter outlived; // released after a report had seen them
    MCCounter live;         // of a snapshot that is being taken
};

// A thread's share of one counter, of few sites: the one that gives way to another gets its share, and all get theirs
// before anybody looks.
template <SharedCounter SiteCounts::*counter> class SiteTally {
public:
    void add(uint32_t site, size_t size) {
        Share &share = shares_[site % share_count];
        if (share.site != site) [[unlikely]]
            change(share, site);
        share.counted.add(size);
    }

    // Both with nobody recording.
    void hand_over();
    void forget();

private:
    struct Share {
        uint32_t site = 0; // 0: none
        MCCounter counted;
    };
    static constexpr uint32_t share_count = 64;

    static void change(Share &share, uint32_t site);

    Share shares_[share_count];
};

struct SiteTallies {
    SiteTally<&SiteCounts::allocated> allocated;
    SiteTally<&SiteCounts::outlived> outlived;
};

} // namespace k42mc::internal
