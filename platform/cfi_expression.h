// Expressions in call-frame information: a small stack machine over registers and the stack's memory.
#pragma once

#include "platform/frame_info.h"
#include "platform/registers.h"
#include "platform/stack.h"

namespace k42mc::internal::platform {

// Evaluates the expression at the address, beginning with the frame address on the stack if that is not
// null. Returns false for one that is damaged, does what compilers do not write, or reads elsewhere.
bool evaluate(const FrameInfo &info, intptr_t expression, const Registers &registers, const Stack &stack,
              const uintptr_t *frame_address, uintptr_t &result);

} // namespace k42mc::internal::platform
