#pragma once

#include "checker_lock.h"
#include "fdcheck/state.h"

namespace k42mc {

// gFDLock for a function that records, unless it must not: once the checker is shut down, and on a
// thread that prints for a checker, since a stream of the process's own may report what is written to
// it.
class RecordLock {
public:
    RecordLock() {
        if (held_)
            pthread_mutex_lock(&gFDLock);
    }
    ~RecordLock() {
        if (held_)
            pthread_mutex_unlock(&gFDLock);
    }
    RecordLock(const RecordLock &) = delete;
    RecordLock &operator=(const RecordLock &) = delete;

    explicit operator bool() const { return held_; }

private:
    const bool held_ = !fd_deinitialized() && !thread_is_printing;
};

} // namespace k42mc
