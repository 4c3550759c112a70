// What holds a block: the shortest chain of pointers that leads to it.
#pragma once

#include "memcheck/reach/search.h"

namespace k42mc::internal {

// Where a chain begins.
struct Root {
    enum class Kind : uint8_t { memory, stack, thread_local_memory, one_register, handed, kept, moving };

    Kind kind;
    uint32_t thread; // its number; 0 for the one that asks
    uintptr_t at;    // of the pointer, in memory
    uintptr_t frame; // of a stack: a return address in the frame's function; 0 where it is not known
    const char *register_name; // of a register
    size_t mapping_bytes;      // of memory
};

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
    Root root;
    size_t count;
    Link links[1]; // from the root on; the last is the block that is asked for
};

void find_chain(const Search &search, const Moment &moment, uintptr_t address, Chain &chain);

} // namespace k42mc::internal
