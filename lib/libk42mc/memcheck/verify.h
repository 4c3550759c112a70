// Whether the guards of recorded blocks are sound. All with gMCLock held.
#pragma once

#include "memcheck/state.h"

namespace k42mc {

// Forgets which memory could be read: it may be gone since.
void start_examination();

// K42MC_DEFECT_NONE, _WO or _WU, of which the last stands also for memory that is gone.
int damage_of(const MCAllocRec &record);

} // namespace k42mc
