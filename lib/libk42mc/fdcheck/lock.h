#pragma once

#include "base/checker_lock.h"
#include "base/fork.h"
#include "fdcheck/state.h"
#include "platform/platform.h"

#include <utility>

namespace k42mc::internal {

// gFDLock for a function that records, unless it must not: once the checker is shut down; on a thread
// that prints for a checker, since a stream of the process's own may report what is written to it; and
// on one that is recording, since an allocator or a signal handler of the process's own may report, too.
class RecordLock {
public:
    explicit RecordLock(bool wanted = true)
        : held_(wanted && !fd_deinitialized() && !thread_is_printing &&
                !std::exchange(thread_is_recording, true)) {
        if (!held_)
            return;
        hook_fork();
        platform::note_utc_offset();
        lock(gFDLock, LockRank::descriptors);
    }
    ~RecordLock() {
        if (!held_)
            return;
        unlock(gFDLock, LockRank::descriptors);
        thread_is_recording = false;
    }
    RecordLock(const RecordLock &) = delete;
    RecordLock &operator=(const RecordLock &) = delete;

    explicit operator bool() const { return held_; }

private:
    const bool held_;
};

} // namespace k42mc::internal
