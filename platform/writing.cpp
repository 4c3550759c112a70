#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

constexpr int raised_by_writes[] = {SIGXFSZ, SIGPIPE, SIGTTOU};

constexpr int64_t patience = 5000; // milliseconds

// Somebody waited in vain for a reader, and no byte has been taken since.
constinit std::atomic<bool> nobody_reads = false;

sigset_t write_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : raised_by_writes)
        sigaddset(&set, number);
    return set;
}

int64_t milliseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

} // namespace

// Only what was blocked before can be pending already. Sandboxes know few programs that look for pending
// signals or wait for them, so that is done where it has to be.
WriteSignalsHeld::WriteSignalsHeld() {
    const sigset_t set = write_signals();
    held_ = pthread_sigmask(SIG_BLOCK, &set, &former_) == 0;
    for (const int number : raised_by_writes) {
        sigset_t pending;
        if (held_ && sigismember(&former_, number) == 1 && sigpending(&pending) == 0)
            others_pending_ = others_pending_ || sigismember(&pending, number) == 1;
    }
}

WriteSignalsHeld::~WriteSignalsHeld() {
    if (held_)
        pthread_sigmask(SIG_SETMASK, &former_, nullptr);
}

void WriteSignalsHeld::take_signal_of(int failure) {
    constexpr timespec at_once = {0, 0};
    if (!held_ || others_pending_ || (failure != EFBIG && failure != EPIPE))
        return;
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, failure == EFBIG ? SIGXFSZ : SIGPIPE);
    sigtimedwait(&raised, nullptr, &at_once);
}

// Each interruption counts as a millisecond at least: the process may have a clock of its own, that stands
// or goes backwards.
bool wait_for_room(int descriptor) {
    int64_t left = nobody_reads ? 0 : patience;
    const int64_t end = milliseconds_now() + left;
    pollfd room{.fd = descriptor, .events = POLLOUT, .revents = 0};
    for (;;) {
        const int ready = poll(&room, 1, static_cast<int>(left));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            break;
        left = std::max<int64_t>(std::min(left - 1, end - milliseconds_now()), 0);
    }
    nobody_reads = true;
    return false;
}

int write_all(int descriptor, const char *bytes, size_t size) {
    WriteSignalsHeld signals_held;
    while (size > 0) {
        const ssize_t written = write(descriptor, bytes, size);
        if (written > 0) {
            nobody_reads = false;
            bytes += written;
            size -= static_cast<size_t>(written);
        } else if (written == 0) {
            return EIO;
        } else if (errno != EINTR && (errno != EAGAIN || !wait_for_room(descriptor))) {
            const int failure = errno;
            signals_held.take_signal_of(failure);
            return failure;
        }
    }
    return 0;
}

} // namespace k42mc::internal::platform
