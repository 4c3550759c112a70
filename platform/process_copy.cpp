#include "platform/process_copy.h"

#include "platform/platform.h"

#include <algorithm>
#include <cerrno>

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

// Whoever reads from the other end of a pipe is not to wait for the copy.
void close_descriptors() {
    if (syscall(SYS_close_range, 0, ~0u, 0) == 0)
        return;
    const uint64_t end = std::min<uint64_t>(descriptor_limit(), 1u << 16);
    for (uint64_t descriptor = 0; descriptor < end; ++descriptor)
        syscall(SYS_close, descriptor);
}

[[noreturn]] void be_copy(void (*work)(void *), void *argument) {
    syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    close_descriptors();
    work(argument);
    for (;;)
        syscall(SYS_exit_group, 0);
}

} // namespace

// No signal at its end makes it a child that only who asks for such gets to see.
pid_t start_copy(void (*work)(void *), void *argument) {
    constexpr unsigned long no_signal = 0;
    const long copy = syscall(SYS_clone, CLONE_UNTRACED | no_signal, nullptr, nullptr, nullptr, nullptr);
    if (copy == 0)
        be_copy(work, argument);
    return static_cast<pid_t>(copy);
}

void wait_for_copy(pid_t copy) {
    while (syscall(SYS_wait4, copy, nullptr, __WALL, nullptr) < 0 && errno == EINTR) {
    }
}

} // namespace k42mc::internal::platform
