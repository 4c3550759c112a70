// A released block whose memory its allocator does not have yet: what shows a write into it.
#pragma once

#include "base/site.h"
#include "k42mc_debug.h"
#include "memcheck/damage.h"

namespace k42mc::internal {

struct RetiredBlock {
    void *raw;
    size_t raw_size;
    void *user;
    size_t size;
    Site release;
    uint32_t thread; // that released it
    uint32_t arena;
    GuardTrace allocation;
};

// What such memory is filled with. As an address it leads nowhere: to none that there is with 64 bits, and with 32
// between the stack and what is mapped below it. It is odd, and no byte of a guard of a freed block.
inline constexpr unsigned char retired_byte = 0xfb;

// Marks the user bytes; their guards are marked already. The pages in the middle of a large block are given back to the
// system, and what is written there later is not looked for.
void fill_retired(const RetiredBlock &block);

// Looks for the first byte that has been written to since. Returns whether there is one, and puts its place, from the
// user pointer.
bool is_changed(const RetiredBlock &block, ptrdiff_t &change);

// The same, where the memory may be gone.
bool is_changed(const RetiredBlock &block, ptrdiff_t &change, GuardInspector &inspector);

} // namespace k42mc::internal
