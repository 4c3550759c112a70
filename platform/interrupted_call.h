// A signal handler that the process is not to notice: a system call that waits, and that ends early when any handler
// was run, goes on as if there had been none.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

// Where a thread waits.
struct WaitingCall {
    long number = -1; // of the call; -1: the thread is not in one
    uintptr_t stack_pointer, place;
};

// What a thread of this process does at this moment, as far as the system tells.
WaitingCall waiting_call_of(uint32_t thread);

// By the third argument of the handler, at its end, and with all signals held back.
void resume_call(void *context, const WaitingCall &call);

} // namespace k42mc::internal::platform
