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

    // Whether all threads are among these.
    bool is_complete() const { return is_complete_; }

    // Lets them go on.
    void release();

private:
    std::span<StoppedThread> threads_;
    uint64_t former_mask_ = 0;
    bool is_complete_ = false;
    bool is_over_ = false;
};

} // namespace k42mc::internal::platform
