#include "base/fork.h"

#include "base/checker_lock.h"
#include "base/errno_keeper.h"
#include "fdcheck/state.h"
#include "linkage/linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/report_signal.h"
#include "memcheck/sink.h"
#include "platform/platform.h"

namespace k42mc::internal {
namespace {

constinit bool forked_among_threads = false;

// No other thread may be half-way through something when the process is copied, and nothing may be left
// in a buffer that parent and child would both write.
void before_fork() {
    platform::hold_stream_list();
    pthread_mutex_lock(&gFDLock);
    pthread_mutex_lock(&gMCLock);
    pthread_mutex_lock(&gMCDebugLock);
    flush_sink();
    forked_among_threads = !platform::single_threaded();
}

void after_fork_in_parent() {
    pthread_mutex_unlock(&gMCDebugLock);
    MCUnlock();
    pthread_mutex_unlock(&gFDLock);
    platform::release_stream_list();
}

// The child's only thread is not the one that took the locks, as the system counts threads.
void after_fork_in_child() {
    gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;
    gMCLock = unlocked_checker;
    gFDLock = PTHREAD_MUTEX_INITIALIZER;
    platform::renew_stream_list();
    if (forked_among_threads)
        platform::freeze_utc_offset();
    leave_sink_to_parent();
    leave_signals_to_parent();
}

constinit pthread_once_t hooked = PTHREAD_ONCE_INIT;

} // namespace

void hook_fork() {
    pthread_once(&hooked, [] {
        const ErrnoKeeper errno_keeper;
        platform::local_time(time(nullptr)); // so that children know the offset from UTC
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    });
}

} // namespace k42mc::internal
