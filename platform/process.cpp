#include "platform/platform.h"

#include <cerrno>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace k42mc::internal::platform {

const char *progname() {
    return program_invocation_short_name;
}

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Such a child has its parent's thread record, and so the clock of its parent's thread. The system makes
// the clock's number of the thread's: ~thread * 8 + 6.
bool borrows_memory() {
    clockid_t clock;
    return pthread_getcpuclockid(pthread_self(), &clock) == 0 && ~(clock >> 3) != gettid();
}

uint64_t descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return UINT64_MAX;
    return limit.rlim_cur;
}

} // namespace k42mc::internal::platform
