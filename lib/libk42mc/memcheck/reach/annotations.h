// What the program says of its blocks and its memory, for who looks which blocks are lost.
#pragma once

#include "memcheck/reach/range.h"

namespace k42mc::internal {

// Both with gMCLock held: the memory that the program has named as roots, in any order, and where that is noted.
std::span<Range> added_roots();
Range memory_of_added_roots();

} // namespace k42mc::internal
