// The checker's flag and lock, which the wrappers and the checker meet at.
#pragma once

#include "base/gate.h"
#include "linkage/linkage.h"

#include <atomic>

namespace k42mc::internal {

// What gMCLock is at first, and in a forked child. It is mostly held for less than it takes to sleep and
// be woken, so who waits tries for a while.
inline constexpr pthread_mutex_t unlocked_checker = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;

// While this is set, what the thread allocates and releases is guarded and not recorded.
extern constinit thread_local bool thread_is_printing;

// How often the calling thread has asked for its new blocks to be kept.
extern constinit thread_local unsigned thread_keeps_blocks;

// The wrappers read the flag without the lock; MCLock reads it again under it.
inline bool checker_on() {
    return std::atomic_ref(gK42MCOn).load(std::memory_order_relaxed) != 0;
}

// Whether the checker is on or not. Nobody records from then on.
inline bool take_checker_lock() {
    if (lock(gMCLock, LockRank::checker) != 0)
        return false;
    see_visitors_out();
    return true;
}

// The same for who must not wait without end: it gives up after a tenth of a second or so, and at once where
// this thread is printing, or in the midst of recording.
bool take_checker_lock_in_time();

inline int release_checker_lock() {
    gate_passes.fetch_add(1, std::memory_order_release);
    return unlock(gMCLock, LockRank::checker);
}

// Lets go of gMCLock at its end, if that was taken.
class CheckerLock {
public:
    explicit CheckerLock(bool taken) : taken_(taken) {}
    ~CheckerLock() {
        if (taken_)
            MCUnlock();
    }
    CheckerLock(const CheckerLock &) = delete;
    CheckerLock &operator=(const CheckerLock &) = delete;

    explicit operator bool() const { return taken_; }

private:
    const bool taken_;
};

inline void set_checker_on(bool on) {
    std::atomic_ref(gK42MCOn).store(on ? 1 : 0, std::memory_order_relaxed);
}

} // namespace k42mc::internal
