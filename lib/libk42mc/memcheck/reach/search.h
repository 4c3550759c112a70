// Which blocks a program can still reach.
#pragma once

#include "k42mc_debug.h"
#include "memcheck/reach/block_map.h"
#include "memcheck/reach/moment.h"
#include "memcheck/reach/roots.h"

namespace k42mc::internal {

class Search {
public:
    explicit Search(const Moment &moment);

    // False where memory has run out, or where the system does not tell what is mapped.
    bool run();

    const BlockMap &blocks() const { return blocks_; }
    bool is_reached(uint32_t index) const { return reached_[index]; }

    // The next block that is pointed to from a range of memory, of which all up to `at` has been looked at; else none.
    uint32_t next_pointer(uintptr_t &at, uintptr_t end);

private:
    static constexpr size_t pages_at_a_time = 4096;

    static size_t bytes_for(const Moment &moment);

    void reach(uint32_t index);
    void reach_from(Range range);
    void reach_from(Range range, const platform::Mapping &mapping);
    void reach_from_threads();
    void reach_from_blocks();
    void fill_window(uintptr_t at, uintptr_t end);

    const Moment &moment_;
    WorkMemory memory_;
    platform::GuardedCopies copies_;
    platform::PageContents pages_;
    BlockMap blocks_;
    Roots roots_;
    std::span<bool> reached_;
    std::span<uint32_t> queue_; // blocks that are reached, and looked into as far as next_
    uint32_t queued_ = 0, next_ = 0;

    // A piece of memory that was copied. Not on the stack, of which a thread may have little.
    static constexpr uintptr_t word = sizeof(uintptr_t), most_words = smallest_page / word;
    Range window_ = {0, 0};
    const std::span<uintptr_t> words_;
};

} // namespace k42mc::internal
