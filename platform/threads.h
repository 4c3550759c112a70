// Threads as the system numbers them.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

// The calling thread, with its process; never 0. The same for all threads where a sandbox keeps it back.
uint64_t own_thread();

// Whether a thread of this process has ended. What a forked child inherits may belong to the thread that
// forked: of threads of another process this is false. May change errno.
bool has_ended(uint64_t thread);

// Whether a thread belongs to this process.
bool is_of_this_process(uint64_t thread);

} // namespace k42mc::internal::platform
