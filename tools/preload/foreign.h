// Pointers to release that are no block of ours.
#pragma once

#include "base/site.h"

#include <stdint.h>

// Returns where it may be a block of another allocator. Any other address stops the process with a finding. Of
// an allocator type.
void stop_unless_foreign(uint16_t type, const void *pointer);

// Forgets and checks a guarded block, which is looked up once, and returns its raw memory; what may be a block of
// another allocator it returns as it is.
void *take_back_unless_foreign(k42mc::internal::Site site, uint16_t type, void *pointer);
