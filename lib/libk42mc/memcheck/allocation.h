// What the registry says of an allocation to who is about to stop the process, or has to find out whether to:
// copies, and nothing is waited for without end.
#pragma once

#include "memcheck/site_table.h"

namespace k42mc::internal {

struct Allocation {
    uintptr_t address = 0; // the user pointer
    size_t size = 0;
    AllocationSite site = {};
};

// Of a block that was recorded until now, by the number of its site. False where that cannot be told.
bool find_site(uint32_t number, AllocationSite &site);

// Of the live block that an address lies in, or in the guards of, but is not the start of. False where there
// is none that begins so many bytes ahead at most, or the registry cannot be asked.
bool find_block_around(uintptr_t address, uintptr_t reach, Allocation &found);

} // namespace k42mc::internal
