// The blocks that nothing in the process leads to any more.
#pragma once

#include "memcheck/reach/findings.h"
#include "memcheck/reach/holders.h"
#include "memcheck/reach/moment.h"

namespace k42mc::internal {

// One that nobody leads to, or one to which only others lead, which stands behind one of them.
struct LostBlock {
    uint64_t order; // of its record, by which that is known again
    uint32_t number;
    bool is_indirect;
};

struct LostBlockList {
    using Element = LostBlock;

    bool is_complete;
    HeldSites held;
    size_t count;
    LostBlock blocks[1];
};

class LostBlocks {
public:
    // Looks for those that reports would list and that have survived so many of them, and for what holds the others where
    // somebody wants to know. Takes the checker's lock, and lets it go. Returns null, or in words why that cannot be found
    // out. One at a time.
    enum class Wanted : bool { lost, lost_and_holders };
    const char *search(const char *function, const Caller &caller, uint32_t limit, Wanted wanted);

    // Calls action with the record of each, and whether others lead to it, as far as they still are. With gMCLock held.
    template <class Action> void each(Action action) const {
        if (!list_.are_current())
            return;
        for (size_t i = 0; i < list_->count; ++i)
            if (const LostBlock &block = list_->blocks[i];
                record_at(block.number).order() == block.order)
                action(record_at(block.number), block.is_indirect);
    }

    // Of the largest sites. With gMCLock held.
    std::span<const HeldSite> held_sites() const {
        return list_.are_current() ? std::span(list_->held.sites).first(list_->held.count)
                                   : std::span<const HeldSite>();
    }

private:
    Findings<LostBlockList> list_;
};

} // namespace k42mc::internal
