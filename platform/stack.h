// The memory that a walk may read: a stack from the innermost frame up.
#pragma once

#include "platform/registers.h"

namespace k42mc::internal::platform {

struct Stack {
    uintptr_t low, high; // high is the first byte behind

    bool holds(uintptr_t address) const {
        return address >= low && address < high && high - address >= sizeof(uintptr_t);
    }
};

// What is known of the calling thread's own stack: nothing at first, and never more than the stack was
// given and was seen to be readable. It stays mapped as long as the thread lives.
extern constinit thread_local Stack own_stack;

// Finds out, with a system call for each page that is new.
Stack find_stack(uintptr_t stack_pointer);

inline Stack stack_of(uintptr_t stack_pointer) {
    const Stack own = own_stack;
    return stack_pointer >= own.low && stack_pointer < own.high ? own : find_stack(stack_pointer);
}

// Whether an address lies in the memory that the stack of the calling thread was given, or that of the first
// thread, wherever on it the threads are.
bool is_on_own_stack(uintptr_t address);
bool is_on_first_stack(uintptr_t address);

// The memory that a thread was given for its stack. Its control block, as the C library calls the thread, lies at the
// top, ahead of what aligns it.
struct StackMemory {
    uintptr_t begin, end;
};

// Of size 0 for the first thread, and where it is not known. May change errno.
StackMemory stack_memory_of(uintptr_t control_block);

// How much thread-local memory there is below each thread's control block, as far as is known: to that of the C library,
// which is among the last.
uintptr_t thread_local_bytes();

// Learns from a thread's control block, in use or not, what a copy of the process cannot find out, in which threads have
// other numbers. Returns whether there is no more to learn. May change errno.
bool know_control_blocks(uintptr_t control_block);

// Of a thread that has ended, while the C library keeps its stack for another one. Without the control block, by which
// somebody may still ask what the thread has returned. May change errno.
StackMemory kept_stack_of(uintptr_t control_block);

// For an address that the stack holds.
inline uintptr_t load(uintptr_t address) {
    return *reinterpret_cast<const uintptr_t *>(address);
}

} // namespace k42mc::internal::platform
