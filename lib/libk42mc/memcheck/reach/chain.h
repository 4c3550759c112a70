// What holds a block: the shortest chain of pointers that leads to it.
#pragma once

#include "memcheck/reach/root.h"

namespace k42mc::internal {

// A block on the way, and where in it the pointer lies that leads to the next.
struct Link {
    uint64_t order; // of its record, by which that is known again
    uint32_t number;
    uintptr_t offset;
};

struct Chain {
    using Element = Link;

    bool is_complete;
    bool is_recorded, is_held;
    char root[Root::most_text_bytes];
    size_t count;
    Link links[1]; // from the root on; the last is the block that is asked for
};

// Calls visit with each link of the chain to a block that is reached, the last first. Returns where the chain begins.
template <class Visit> const Origin &follow_back(const Search &search, uint32_t index, Visit visit) {
    uintptr_t offset = 0;
    for (;; index = search.origin(index).holder) {
        const Block &block = search.blocks()[index];
        visit(Link{record_at(block.number).order(), block.number, offset});
        const Origin &origin = search.origin(index);
        if (origin.kind != Origin::Kind::block)
            return origin;
        offset = origin.at - search.blocks()[origin.holder].begin;
    }
}

void find_chain(const Search &search, const Moment &moment, uintptr_t address, Chain &chain);

} // namespace k42mc::internal
