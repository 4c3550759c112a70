// Whether the guards of live blocks are sound.
#pragma once

#include "k42mc_debug.h"
#include "memcheck/record.h"

#include <stdint.h>

namespace k42mc::internal {

// Looks at guards, each page only after a probe: a block may have been released past the wrappers and
// unmapped. The pages found readable are remembered, which is good for one pass over the registry with
// gMCLock held.
class GuardInspector {
public:
    // K42MC_DEFECT_NONE, _WO or _WU.
    int defect(const Record &record);

    // Not of no bytes.
    bool readable(uintptr_t address, size_t size);

private:
    int defect_in_pages(const Record &record);
    bool page_readable(uintptr_t page);

    uintptr_t pages_[256] = {}; // by the lowest bits of their number; 0: none
};

} // namespace k42mc::internal
