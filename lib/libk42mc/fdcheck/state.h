// What the descriptor checker keeps beside its exported data.
#pragma once

#include "linkage/linkage.h"

#include <k42mc/sl.hpp>

namespace k42mc::internal {

using EventList = sl_view<FDEvent, &FDEvent::link>;

// Guards the table and the histories. Taken before gMCLock: a history's header comes from the wrappers.
extern pthread_mutex_t gFDLock;

// Whether this thread is between the lock and the unlock of a function that records.
extern constinit thread_local bool thread_is_recording;

// Set for good by FDDeinit, which takes no lock.
bool fd_deinitialized();

// How many records the table has; before there is one, how many it would get.
int32_t fd_table_size();

// The history of a descriptor. Null if it has none, or one that an alarm has frozen.
SLList *fd_growing_history(int32_t descriptor);

// Makes the table if there is none yet. Returns it, or null when there is no memory.
FDInfo *fd_table();

// As FDAddEvent, with gFDLock held.
int32_t fd_add_event(const char *name, int32_t descriptor, uint32_t type);

// Records a read or write in the place of the last one of its type since the last open or close, if
// there is one: programs do millions, and they count towards no bound of a history's.
void fd_record_use(const char *name, int32_t descriptor, uint32_t type);

} // namespace k42mc::internal
