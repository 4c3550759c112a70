#include "platform/platform.h"

#include <atomic>
#include <cerrno>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace k42mc::internal::platform {

const char *progname() {
    return program_invocation_short_name;
}

// Asked for at each step of a search.
size_t page_size() {
    static constinit std::atomic<size_t> known = 0;
    size_t size = known.load(std::memory_order_relaxed);
    if (size == 0) {
        size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        known.store(size, std::memory_order_relaxed);
    }
    return size;
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
