#pragma once

#include "memcheck/reach/lost_blocks.h"

namespace k42mc::internal {

// As k42mcx_report_json, with what a search has found; null for no search.
int report_json(int descriptor, uint32_t limit, const LostBlocks *lost);

// The same with a search of its own, or without one where that is not possible, which is said on standard error.
int search_and_report_json(int descriptor, uint32_t limit);

} // namespace k42mc::internal
