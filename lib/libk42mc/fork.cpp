#include "base/fork.h"

#include "base/checker_lock.h"
#include "base/errno_keeper.h"
#include "fdcheck/state.h"
#include "linkage/linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/inheritance.h"
#include "memcheck/quarantine.h"
#include "memcheck/reach/inspection.h"
#include "memcheck/report_signal.h"
#include "memcheck/sink.h"
#include "pages/pool.h"
#include "platform/platform.h"

namespace k42mc::internal {
namespace {

constinit bool forked_among_threads = false;

// No other thread may be half-way through something when the process is copied. The list of streams comes
// first: fork wants it when all handlers have run, and who flushes all streams holds it while waiting for
// a thread that may be waiting for a lock of ours.
void before_fork() {
    check_no_lock_held();
    platform::hold_stream_list();
    lock(gFDLock, LockRank::descriptors);
    take_checker_lock();
    lock(gMCDebugLock, LockRank::debug_messages);
    lock_quarantine();
    hold_page_pool();
    forked_among_threads = !platform::single_threaded();
    thread_is_forking = true;
}

void after_fork_in_parent() {
    thread_is_forking = false;
    release_page_pool();
    unlock_quarantine();
    unlock(gMCDebugLock, LockRank::debug_messages);
    release_checker_lock();
    end_inheritance();
    unlock(gFDLock, LockRank::descriptors);
    platform::release_stream_list();
}

// The child's only thread is not the one that took the locks, as the system counts threads.
void after_fork_in_child() {
    thread_is_forking = false;
    gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;
    gMCLock = unlocked_checker;
    gFDLock = PTHREAD_MUTEX_INITIALIZER;
    forget_locks();
    renew_quarantine();
    renew_page_pool();
    forget_inspections();
    forget_other_visitors();
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
        platform::note_utc_offset(); // so that children know it
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    });
}

} // namespace k42mc::internal
