// A copy of the process as it is at this moment, to look at while the process itself goes on.
#pragma once

#include <sys/types.h>

namespace k42mc::internal::platform {

// Runs work in a copy, which ends with it, and which the process sees nothing of: it is no child that anybody waits for,
// ends without a signal, and keeps no descriptor open. Nothing of libc's that needs a lock works there. Returns what to
// wait for, or -1 where the system denies a copy. May change errno.
pid_t start_copy(void (*work)(void *argument), void *argument);
void wait_for_copy(pid_t copy);

} // namespace k42mc::internal::platform
