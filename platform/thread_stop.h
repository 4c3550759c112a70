// Stopping all other threads of the process, each in a signal handler, so that their registers and stacks stand still.
#pragma once

#include "platform/interrupted_call.h"

#include <span>

namespace k42mc::internal::platform {

struct StoppedThread {
    uint32_t id;
    WaitingCall call;        // that it was in ahead of the stop
    const void *context;     // its registers, a ucontext_t on its stack; null where it did not stop
    uintptr_t control_block; // pthread_self()
    bool is_told;
};

enum class StopOutcome {
    untold,  // the system does not tell what threads there are
    partial, // one does not stop: it blocks the signal, or starts a process and waits for that
    whole,
};

// They stand from the one to the other. One at a time in a process. The calling thread handles no signals meanwhile,
// and must wait for nothing that another thread may hold.
class ThreadStop {
public:
    ThreadStop();
    ~ThreadStop() { release(); }
    ThreadStop(const ThreadStop &) = delete;
    ThreadStop &operator=(const ThreadStop &) = delete;

    std::span<const StoppedThread> threads() const { return threads_; }

    // Whether all threads stand still that have registers.
    StopOutcome outcome() const { return outcome_; }

    // Lets them go on.
    void release();

    // In the child of a fork, where no thread does any more.
    static void forget();

private:
    std::span<StoppedThread> threads_;
    uint64_t former_mask_ = 0;
    StopOutcome outcome_ = StopOutcome::untold;
    bool is_over_ = false;
};

} // namespace k42mc::internal::platform
