// The time that is left of a wait for so many milliseconds, which begins anew: the system does not tell.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

// At the beginning of a handler that interrupts a wait.
void note_interruption();

// At its end: the first time that is all of it, as nobody knows when the wait began; when the same wait is interrupted
// again, what it had left then, less what has passed. Below 0 it is without end.
int32_t milliseconds_left(int32_t whole, uintptr_t place, uintptr_t stack_pointer);

} // namespace k42mc::internal::platform
