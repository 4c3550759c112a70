// What the descriptor checker keeps beside its exported data.
#pragma once

#include "linkage.h"

namespace k42mc {

// Guards the table and the histories. Taken before gMCLock: a history's header comes from the wrappers.
extern pthread_mutex_t gFDLock;

// Set for good by FDDeinit, which takes no lock.
bool fd_deinitialized();

// How many records the table has; before there is one, how many it would get.
int32_t fd_table_size();

// Makes the table if there is none yet. Returns it, or null when there is no memory.
FDInfo *fd_table();

} // namespace k42mc
