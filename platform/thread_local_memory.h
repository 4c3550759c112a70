// To which module a place in thread-local memory belongs.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

struct ThreadLocalPlace {
    uintptr_t module; // an address in it
    uintptr_t offset; // from the start of its thread-local memory
};

// In the memory of the thread with that control block, which stands still or is the calling one. Takes no lock. False where
// it is no module's, or of one that was loaded later. May change errno.
bool find_thread_local_place(uintptr_t address, uintptr_t control_block, ThreadLocalPlace &place);

} // namespace k42mc::internal::platform
