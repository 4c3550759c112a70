#include "base/checker_lock.h"

namespace k42mc::internal {

constinit thread_local bool thread_is_printing = false;
constinit thread_local unsigned thread_keeps_blocks = 0;

bool take_checker_lock_in_time() {
    constexpr int most_tries = 1000;
    if (thread_is_forking)
        return true;
    if (thread_is_printing || (own_visitor != nullptr &&
                               own_visitor->place.load(std::memory_order_relaxed) != Visitor::outside))
        return false;
    for (int tries = 0; pthread_mutex_trylock(&gMCLock) != 0; ++tries) {
        if (tries == most_tries)
            return false;
        platform::sleep_briefly();
    }
    note_locked(LockRank::checker);
    see_visitors_out();
    return true;
}

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
