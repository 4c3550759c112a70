// For what needs more stack than a signal handler may find.
#pragma once

#include <cstddef>
#include <span>

namespace k42mc::internal::platform {

// Calls a function on a stack of the caller's own, which nobody else is on.
void call_on(std::span<std::byte> stack, void (*function)(void *), void *argument);

} // namespace k42mc::internal::platform
