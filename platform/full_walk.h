// The walk that follows every rule there is, with all registers: slower by a hundred times than the one
// by short rules, which leaves to it what passes a signal handler or a function in unusual assembly.
#pragma once

#include "platform/registers.h"
#include "platform/trace_buffer.h"

namespace k42mc::internal::platform {

void full_walk(TraceBuffer &trace);

// Which frame of a stack holds an address, counted from the registers that a thread has.
struct FrameSearch {
    uintptr_t place;     // in its function, as the return address of a call would be; 0 for none
    uintptr_t walked_to; // where the walk has ended, the outermost frame's end as a rule
};
FrameSearch find_frame(const Registers &start, uintptr_t address);

// Goes to the frame of the caller. False where it cannot be told.
bool step_out(Registers &registers);

} // namespace k42mc::internal::platform
