#include "platform/threads.h"

#include "platform/platform.h"

#include <errno.h>
#include <time.h>

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {

uint64_t own_thread() {
    return uint64_t{static_cast<uint32_t>(getpid())} << 32 | static_cast<uint32_t>(gettid());
}

bool is_of_this_process(uint64_t thread) {
    return thread >> 32 == static_cast<uint32_t>(getpid());
}

// A sandbox may refuse the call, which says nothing.
bool has_ended(uint64_t thread) {
    return is_of_this_process(thread) &&
           syscall(SYS_tgkill, getpid(), static_cast<pid_t>(thread), 0) != 0 && errno == ESRCH;
}

// Past the C library, whose own function is a cancellation point.
void sleep_briefly() {
    const int kept_errno = errno;
    const timespec moment = {0, 50'000};
    syscall(SYS_nanosleep, &moment, nullptr);
    errno = kept_errno;
}

} // namespace k42mc::internal::platform
