// The lock under which records, sites and the index grow. It comes last, and is held for moments: nobody
// waits for anything else with it.
#pragma once

#include "base/locks.h"

namespace k42mc::internal {

extern constinit pthread_mutex_t gMCRecordsLock;

class RecordsLock {
public:
    RecordsLock() { lock(gMCRecordsLock, LockRank::records); }
    ~RecordsLock() { unlock(gMCRecordsLock, LockRank::records); }
    RecordsLock(const RecordsLock &) = delete;
    RecordsLock &operator=(const RecordsLock &) = delete;
};

} // namespace k42mc::internal
