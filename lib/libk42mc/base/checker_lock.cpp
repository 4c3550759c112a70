#include "base/checker_lock.h"

namespace k42mc::internal {

constinit thread_local bool thread_is_printing = false;

} // namespace k42mc::internal

using namespace k42mc::internal;

constinit uint8_t gK42MCOn = 0;
constinit pthread_mutex_t gMCLock = unlocked_checker;
constexpr const char *const gAllocatorType[MC_ALLOCATOR_TYPES] = {"STD", "SYS", "FIX", "VAR", "SHM"};

uint8_t MCLock() {
    if (thread_is_printing || !take_checker_lock())
        return 0;
    if (!checker_on()) {
        release_checker_lock();
        return 0;
    }
    return 1;
}

int MCUnlock() {
    return release_checker_lock();
}

K42MC_EXPORT(MCLock);
K42MC_EXPORT(MCUnlock);
