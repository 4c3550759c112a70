// The walk that follows every rule there is, with all registers: slower by a hundred times than the one
// by short rules, which leaves to it what passes a signal handler or a function in unusual assembly.
#pragma once

#include "platform/trace_buffer.h"

namespace k42mc::internal::platform {

void full_walk(TraceBuffer &trace);

} // namespace k42mc::internal::platform
