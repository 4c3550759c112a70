#pragma once

#include "memcheck/reach/lost_blocks.h"
#include "memcheck/reach/search.h"

namespace k42mc::internal {

// Puts down those of the blocks that a search has not reached, each group behind the block that leads to the rest of it.
// False where memory runs out.
bool list_lost_blocks(Search &search, uint32_t limit, LostBlockList &list);

} // namespace k42mc::internal
