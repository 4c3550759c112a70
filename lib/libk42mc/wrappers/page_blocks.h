// The wrappers' way with blocks that have pages of their own.
#pragma once

#include "pages/block.h"
#include "pages/choice.h"

namespace k42mc::internal {

// A block whose turn it is, and that pages are to be had for; null for any other, with nothing done. It is not recorded.
PageBlock *make_page_block(Site site, uint16_t type, size_t alignment, size_t size);

inline PageBlock *try_page_block(Site site, uint16_t type, size_t alignment, size_t size) {
    return wants_pages() ? make_page_block(site, type, alignment, size) : nullptr;
}

// The same as hand_out has it: recorded.
void *hand_out_pages(Site site, uint16_t type, size_t alignment, size_t size);

inline void *try_pages(Site site, uint16_t type, size_t alignment, size_t size) {
    return wants_pages() ? hand_out_pages(site, type, alignment, size) : nullptr;
}

// Of a pointer into the pages' range that is to be released: stops the process unless it is a live block's, and sound.
// Then it is claimed, and the caller's to end.
PageBlock &claim_page_block(uint32_t arena, void *ptr, KnownBlock known);

// As take_back; there is no raw memory.
void take_back_pages(Site site, uint16_t type, void *ptr);

} // namespace k42mc::internal
