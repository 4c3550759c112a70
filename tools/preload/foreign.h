// Pointers to release that are no block of ours.
#pragma once

#include <stdint.h>

// Returns where it may be a block of another allocator. Any other address stops the process with a finding. Of
// an allocator type.
void stop_unless_foreign(uint16_t type, const void *pointer);
