// What the wrappers offer to further wrappers inside the library.
#pragma once

#include "base/site.h"
#include "linkage/linkage.h"

namespace k42mc::internal {

// The raw size for a user size with an alignment (1 for none), or 0 when it does not fit.
size_t with_guards(size_t size, size_t alignment = 1);

// Sets errno to ENOMEM. Returns null.
void *out_of_memory();

// Whether a guarded block can have this alignment.
bool valid_alignment(size_t alignment);

// Whether a block is one of the wrappers', or lies where only theirs do. One whose header an underrun has destroyed is
// still known by its address, while it is recorded.
bool is_guarded(const void *ptr);

// Whether a block of anybody's is a live one of the wrappers'; then its size is put.
bool is_live(const void *ptr, size_t *size);

// Turns raw memory, or null for none, into a recorded guarded block. Returns its user pointer or null;
// keeps errno.
void *hand_out(Site site, uint16_t type, uint32_t alignment, void *raw, size_t raw_size,
               size_t user_size);

} // namespace k42mc::internal
