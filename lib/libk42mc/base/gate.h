// The gate between the threads that record, each for itself and past gMCLock, and whoever holds that lock.
//
//   a thread that records                    whoever takes the lock
//
//   notes that it is inside                  locks gMCLock
//   looks whether gMCLock is held:           waits until nobody is inside
//     if so, steps out and waits             does its work
//   does its work                            unlocks it
//   notes that it is outside
//
// Each writes before it reads what the other writes, with a barrier between: so one of the two sees the
// other, and they never work at the same time. Who takes the lock past us, with pthread_mutex_lock, keeps
// new ones out and does not wait for those inside: each of them ends the one operation that it is in.
#pragma once

#include "base/locks.h"
#include "linkage/linkage.h"
#include "platform/platform.h"

#include <atomic>

namespace k42mc::internal {

// A thread at the gate. It is there for good, for one thread after another.
struct Visitor {
    // What it is outside, inside, or at the lock: then it keeps nobody out but its own signal handlers.
    enum : uint32_t { outside, inside, at_lock };
    std::atomic<uint32_t> place = outside;
    std::atomic<uint64_t> owner = 0; // as the system numbers threads; 0: nobody's yet
    Visitor *next = nullptr;         // in the list of all
    std::atomic<pthread_t> thread{}; // as the C library calls it

    // Returns whether nobody holds gMCLock. It is inside then, until it leaves.
    bool enter();
    void leave() { place.store(outside, std::memory_order_release); }
};

// Counts the times that the lock was let go, so that who comes in next sees what was done under it.
extern constinit std::atomic<uint32_t> gate_passes;

inline bool Visitor::enter() {
    if (platform::single_threaded())
        place.store(inside, std::memory_order_relaxed);
    else
        place.exchange(inside, std::memory_order_seq_cst);
    gate_passes.load(std::memory_order_acquire);
    if (!platform::is_held(gMCLock)) [[likely]]
        return true;
    leave();
    return false;
}

extern constinit thread_local Visitor *own_visitor; // null for a thread that has not recorded
extern constinit std::atomic<Visitor *> all_visitors;

// Makes a new visitor the calling thread's.
void add_visitor(Visitor &visitor);

// Makes one the calling thread's whose thread has ended. Returns false where none was found. Keeps errno.
bool adopt_visitor();

// Whether an address lies on the stack of a thread that has recorded and has not ended. May change errno.
bool is_on_visitors_stack(uintptr_t address);

// With gMCLock held: returns when no other thread is inside.
void see_visitors_out();

// In the child of a fork, where the other threads are not.
void forget_other_visitors();

} // namespace k42mc::internal
