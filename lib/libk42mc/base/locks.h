// Our locks, and the one order in which a thread takes them.
#pragma once

#include <pthread.h>

namespace k42mc::internal {

// From the first to the last.
enum class LockRank : unsigned {
    searches,
    descriptors,
    checker,
    debug_messages,
    records,
    quarantine,
    pages
};

// Builds with assertions stop where a lock is taken out of order, or where something that is not ours is
// waited for while one is held: libc's list of streams, its time zone.
#ifdef NDEBUG
inline void check_lock_order(LockRank) {}
inline void check_no_lock_held() {}
inline void note_locked(LockRank) {}
inline void note_unlocked(LockRank) {}
inline void forget_locks() {}
#else
void check_lock_order(LockRank rank);
void check_no_lock_held();
void note_locked(LockRank rank);
void note_unlocked(LockRank rank);
void forget_locks(); // in the child of a fork, which makes them anew
#endif

// Between our handlers of a fork, of which the first takes all locks: what handlers of the process's own call
// meanwhile, in the same thread, goes on under those.
extern constinit thread_local bool thread_is_forking;

// Returns 0 or what went wrong.
inline int lock(pthread_mutex_t &mutex, LockRank rank) {
    if (thread_is_forking)
        return 0;
    check_lock_order(rank);
    const int failure = pthread_mutex_lock(&mutex);
    if (failure == 0)
        note_locked(rank);
    return failure;
}

inline int unlock(pthread_mutex_t &mutex, LockRank rank) {
    if (thread_is_forking)
        return 0;
    note_unlocked(rank);
    return pthread_mutex_unlock(&mutex);
}

// For locks under which nothing else is taken. Not noted as held: a handler that forks meanwhile takes the others.
inline void lock_unnoted(pthread_mutex_t &mutex, LockRank rank) {
    check_lock_order(rank);
    if (!thread_is_forking)
        pthread_mutex_lock(&mutex);
}

inline void unlock_unnoted(pthread_mutex_t &mutex) {
    if (!thread_is_forking)
        pthread_mutex_unlock(&mutex);
}

} // namespace k42mc::internal
