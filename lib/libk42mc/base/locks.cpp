#include "base/locks.h"

#include "platform/platform.h"

namespace k42mc::internal {

constinit thread_local bool thread_is_forking = false;

} // namespace k42mc::internal

#ifndef NDEBUG

namespace k42mc::internal {
namespace {

constinit thread_local unsigned locks_held = 0; // a bit a rank

unsigned bit(LockRank rank) {
    return 1u << static_cast<unsigned>(rank);
}

void expect(bool in_order, const char *expression, const char *function) {
    if (!in_order)
        platform::assertion_failed(expression, "lib/libk42mc/base/locks", __LINE__, function);
}

} // namespace

void check_lock_order(LockRank rank) {
    expect(locks_held < bit(rank), "locks_held < bit(rank)", "check_lock_order");
}

void check_no_lock_held() {
    expect(locks_held == 0, "locks_held == 0", "check_no_lock_held");
}

void note_locked(LockRank rank) {
    locks_held |= bit(rank);
}

void note_unlocked(LockRank rank) {
    locks_held &= ~bit(rank);
}

void forget_locks() {
    locks_held = 0;
}

} // namespace k42mc::internal

#endif
