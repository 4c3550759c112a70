// Addresses whose pages can be barred one by one: nobody can touch them, and they take no memory.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal::platform {

// All sizes are of whole pages. None of these allocates or takes a lock of this process's; all keep errno.

// Returns addresses that nobody can touch, or 0 where there are none.
uintptr_t reserve_addresses(size_t size);
void release_addresses(uintptr_t begin, size_t size);

// How many addresses a process may have.
size_t most_addresses();

// Zeros that can be read, in whole pages; null where there are none. What is opened of them can be written to, and is
// counted as memory from then on only.
void *reserve_zeros(size_t size);
bool open_zeros(void *begin, size_t size);

// Whether the system keeps bars beside its list of mappings, so that they may be as many as there are pages. Found out
// once, by reserved addresses.
bool has_cheap_bars(uintptr_t begin, size_t size);

// How many mappings a process may have.
size_t most_mappings();

// Makes reserved addresses ready, all pages barred still. Then pages can be opened, which gives them zeros, and barred
// again, which takes their memory. False where the system refuses it.
bool prepare_pages(uintptr_t begin, size_t size);
bool open_pages(uintptr_t begin, size_t size);
bool bar_pages(uintptr_t begin, size_t size);

} // namespace k42mc::internal::platform
