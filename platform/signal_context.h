// What a signal handler's third argument says of the thread that it has interrupted.
#pragma once

#include "platform/registers.h"

namespace k42mc::internal::platform {

struct SavedRegisters {
    uintptr_t begin, end; // the general ones, in memory
    uintptr_t vectors_begin, vectors_end;
    uintptr_t stack_pointer;
    bool is_on_signal_stack; // that the program has set up for handlers
};

SavedRegisters saved_registers(const void *context);

// Those that a frame is found by.
Registers registers_of(const void *context);

// Of the register that lies at an address in the saved ones; "vector register" for one of those.
const char *saved_register_name(const void *context, uintptr_t at);
const char *register_name(int number);

// At a fault of memory: whether it was a write.
bool was_write(const void *context);

// Whether the calling thread is on such a stack. May change errno.
bool is_on_signal_stack();

} // namespace k42mc::internal::platform
