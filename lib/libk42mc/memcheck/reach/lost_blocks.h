// The blocks that nothing in the process leads to any more.
#pragma once

#include "memcheck/reach/inspection.h"
#include "memcheck/record_store.h"
#include "memcheck/state.h"

namespace k42mc::internal {

// One that nobody leads to, or one to which only others lead, which stands behind one of them.
struct LostBlock {
    uint64_t order; // of its record, by which that is known again
    uint32_t number;
    bool is_indirect;
};

// Room for as many as there are blocks, which a copy of the process fills in.
struct LostBlockList {
    bool is_complete;
    size_t count;
    LostBlock blocks[1];
};

class LostBlocks {
public:
    LostBlocks() = default;
    ~LostBlocks();
    LostBlocks(const LostBlocks &) = delete;
    LostBlocks &operator=(const LostBlocks &) = delete;

    // Looks for those that reports would list and that have survived so many of them. Takes the checker's lock, and
    // lets it go. Returns null, or in words why that cannot be found out. One at a time.
    const char *search(const char *function, const Caller &caller, uint32_t limit);

    // Whether other threads had to stand still until the end, as the system has denied a copy of the process.
    bool held_threads() const { return held_threads_; }

    // Calls action with the record of each, and whether others lead to it, as far as they still are. With gMCLock held.
    template <class Action> void each(Action action) const {
        if (list_ == nullptr || generation_ != gMCGeneration)
            return; // the registry has gone with all records
        for (size_t i = 0; i < list_->count; ++i)
            if (const LostBlock &block = list_->blocks[i];
                record_at(block.number).order() == block.order)
                action(record_at(block.number), block.is_indirect);
    }

private:
    bool make_list(uint32_t limit);

    LostBlockList *list_ = nullptr;
    size_t list_bytes_ = 0;
    uint32_t generation_ = 0; // of the registry
    bool held_threads_ = false;
};

} // namespace k42mc::internal
