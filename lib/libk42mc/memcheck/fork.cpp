#include "memcheck/fork.h"

#include "linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/sink.h"

namespace k42mc {
namespace {

// No other thread may be half-way through something when the process is copied, and nothing may be left
// in a buffer that parent and child would both write.
void before_fork() {
    pthread_mutex_lock(&gMCLock);
    pthread_mutex_lock(&gMCDebugLock);
    flush_sink();
}

void after_fork_in_parent() {
    pthread_mutex_unlock(&gMCDebugLock);
    MCUnlock();
}

// The child's only thread is not the one that took the locks, as the system counts threads.
void after_fork_in_child() {
    gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;
    gMCLock = PTHREAD_MUTEX_INITIALIZER;
    leave_sink_to_parent();
}

constinit pthread_once_t hooked = PTHREAD_ONCE_INIT;

} // namespace

void hook_fork() {
    pthread_once(&hooked,
                 [] { pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child); });
}

} // namespace k42mc
