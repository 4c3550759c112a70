// A pointer that is to be released and is no block's.
#pragma once

#include "memcheck/allocation.h"

namespace k42mc::internal {

struct StrayPointer {
    // What it is instead: an address in or beside a recorded block, or one with pages of its own, on a stack, in a module, in no memory, or
    // what may be a block of another allocator.
    enum class Kind {
        in_block,
        in_released_block,
        on_own_stack,
        on_other_stack,
        in_module,
        nowhere,
        unknown
    };

    Kind kind = Kind::unknown;
    bool may_be_anothers = false; // it may be a block of another allocator's
    Allocation block = {};        // of the first two kinds
};

// Blocks are looked for that begin so many bytes ahead at most. Allocates nothing, and waits for nobody without
// end. Keeps errno.
StrayPointer examine_pointer(const void *pointer, uintptr_t reach = UINTPTR_MAX);

} // namespace k42mc::internal
