// What a signal handler's third argument says of the thread that it has interrupted.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

struct SavedRegisters {
    uintptr_t begin, end; // the general ones, in memory
    uintptr_t vectors_begin, vectors_end;
    uintptr_t stack_pointer;
};

SavedRegisters saved_registers(const void *context);

} // namespace k42mc::internal::platform
