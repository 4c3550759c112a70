// What a signal handler's third argument says of the thread that it has interrupted.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

struct SavedRegisters {
    uintptr_t begin, end; // the general ones, in memory
    uintptr_t vectors_begin, vectors_end;
    uintptr_t stack_pointer;
    bool is_on_signal_stack; // that the program has set up for handlers
};

SavedRegisters saved_registers(const void *context);

// The same for the calling thread. May change errno.
bool is_on_signal_stack();

} // namespace k42mc::internal::platform
