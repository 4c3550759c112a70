#pragma once

#include <pthread.h>

namespace k42mc::internal {

// Guards the debug stream, and nothing else.
extern pthread_mutex_t gMCDebugLock;

} // namespace k42mc::internal
