// Blocks that have pages of their own: no header, no tail. What is left of the first and the last page is filled, and
// compared as guards are.
#pragma once

#include "pages/pool.h"

namespace k42mc::internal {

// Whether a block can have pages at all. An alignment of 1 is none.
bool fits_in_pages(size_t size, size_t alignment);

// Zeros, or null where no pages are to be had. Takes over who allocated it.
PageBlock *make_page_block(Site site, uint32_t arena, size_t size, size_t alignment,
                           const StackTrace &trace);

// The block that begins just there; null for none.
PageBlock *page_block_at(const void *user);

// Of a live block: K42MC_DEFECT_NONE, _WO or _WU.
int page_block_defect(const PageBlock &block);

// Says that it is released, before anything else can say so. False where somebody else has.
bool claim_release(PageBlock &block);
void take_claim_back(PageBlock &block);

// The rest of a release that was claimed.
void end_page_block(PageBlock &block, const StackTrace &trace);

} // namespace k42mc::internal
