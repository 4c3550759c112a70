// Which blocks a program can still reach.
#pragma once

#include "k42mc_debug.h"
#include "memcheck/reach/block_map.h"
#include "memcheck/reach/moment.h"
#include "memcheck/reach/roots.h"
#include "platform/shared_pages.h"
#include "platform/stack.h"

namespace k42mc::internal {

// By what a block was reached first.
struct Origin {
    enum class Kind : uint8_t { memory, block, caller, thread, kept, moving, inherited };

    Kind kind;
    uint32_t holder; // the block that the word lies in, or the thread whose registers have it
    uintptr_t at;    // where the word lies; of the caller's registers, the number
};

class Search {
public:
    // What to say where run() returns false.
    static constexpr const char *no_result =
        "memory has run out, or the system does not tell what memory there is";

    // With callers_last, of what the asking thread has on its stack and in its registers only where there is no other
    // origin: it may have the address that it asks for.
    enum class Note : uint8_t { nothing, origins, origins_callers_last };
    explicit Search(const Moment &moment, Note note = Note::nothing);

    // False where memory has run out, or where the system does not tell what is mapped.
    bool run();

    const BlockMap &blocks() const { return blocks_; }
    bool is_reached(uint32_t index) const { return reached_[index]; }

    // Of a block that is reached, where that is noted. Followed from block to block, they are the shortest way from a root.
    const Origin &origin(uint32_t index) const { return origins_[index]; }

    // The blocks that are reached, each behind the one that it was reached from.
    std::span<const uint32_t> reached_in_order() const { return queue_.first(queued_); }

    // The next block that is pointed to from a range of memory, of which all up to `at` has been looked at; else none.
    uint32_t next_pointer(uintptr_t &at, uintptr_t end);

private:
    static constexpr size_t pages_at_a_time = 4096, windows_of_pages = 16;

    static size_t bytes_for(const Moment &moment, Note note);

    void reach(uint32_t index, const Origin &origin);
    void reach_from(Range range, Origin::Kind kind, uint32_t holder);
    void reach_from_block(uint32_t index);
    void reach_from(Range range, const platform::Mapping &mapping, bool callers_own);
    void reach_from_threads();
    void reach_from_caller();
    bool is_callers_own(uintptr_t at, const platform::Mapping &mapping) const;
    void prefetch_ahead() const;
    void reach_from_blocks();
    void fill_window(uintptr_t at, uintptr_t end);

    const Moment &moment_;
    const bool callers_last_;
    // What its parent has left to a forked child counts as live, so that of memory that is as it was then nobody has to look
    // at anything: no pointer to a newer block can be there. With another thread, a copy does the search, to which all
    // memory is like that.
    const bool as_heir_;
    WorkMemory memory_;
    platform::GuardedCopies copies_;
    platform::PageContents pages_;
    platform::SharedPages inherited_;
    BlockMap blocks_;
    Roots roots_;
    std::span<bool> reached_;
    std::span<Origin> origins_;
    std::span<uint32_t> queue_; // blocks that are reached, and looked into as far as next_
    uint32_t queued_ = 0, next_ = 0;

    // A piece of memory that was copied. Not on the stack, of which a thread may have little.
    static constexpr uintptr_t word = sizeof(uintptr_t), most_words = smallest_page / word;
    Range window_ = {0, 0};
    const std::span<uintptr_t> words_;

    platform::StackMemory
        callers_stack_; // without the page where its thread-local memory is; none of the first thread
};

} // namespace k42mc::internal
