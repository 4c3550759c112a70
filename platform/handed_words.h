// Words that the process has handed to the system, which gives them back when something happens.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

// Calls take with each word of an epoll's data or a timer's value, as far as the system tells of those. Returns whether it
// has told all and take has taken all.
bool each_handed_word(bool (*take)(void *argument, uint64_t word), void *argument);

} // namespace k42mc::internal::platform
