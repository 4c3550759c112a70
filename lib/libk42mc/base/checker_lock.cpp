#include "base/checker_lock.h"

constinit uint8_t gK42MCOn = 0;
constinit pthread_mutex_t gMCLock = k42mc::internal::unlocked_checker;
constexpr const char *const gAllocatorType[MC_ALLOCATOR_TYPES] = {"STD", "SYS", "FIX", "VAR", "SHM"};

constinit thread_local bool k42mc::internal::thread_is_printing = false;

uint8_t MCLock() {
    if (k42mc::internal::thread_is_printing || pthread_mutex_lock(&gMCLock) != 0)
        return 0;
    if (!k42mc::internal::checker_on()) {
        pthread_mutex_unlock(&gMCLock);
        return 0;
    }
    return 1;
}

int MCUnlock() {
    return pthread_mutex_unlock(&gMCLock);
}

K42MC_EXPORT(MCLock);
K42MC_EXPORT(MCUnlock);
