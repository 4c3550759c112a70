// The process at the moment that a search looks at: its blocks, and its threads, which stand still.
#pragma once

#include "memcheck/reach/range.h"
#include "platform/full_walk.h"
#include "platform/libc_heap.h"
#include "platform/registers.h"
#include "platform/thread_stop.h"

#include <pthread.h>

namespace k42mc::internal {

// The thread that asks for a search, where it has called the checker.
struct Caller {
    platform::Registers registers; // those that calls preserve
    uintptr_t stack_pointer;
    uintptr_t control_block;

    // In the function that the program has called.
    [[gnu::always_inline]] static Caller here() {
        Caller caller = {};
        platform::capture(caller.registers);
        caller.stack_pointer = caller.registers[platform::Registers::sp];
        caller.control_block = static_cast<uintptr_t>(pthread_self());
        return caller;
    }

    // To the program's own frame, without what the called function has put aside, and without its argument.
    void step_out() {
        constexpr uintptr_t arguments_on_stack = sizeof(void *) == 8 ? 0 : sizeof(void *);
        if (platform::step_out(registers))
            stack_pointer = registers[platform::Registers::sp] + arguments_on_stack;
    }
};

struct Moment {
    Caller caller;
    std::span<const platform::StoppedThread> threads; // all others
    size_t block_count;                               // at most
    platform::ThreadCaches caches;                    // of libc's allocator
    Range handed;                                     // where the words stand that the system keeps
};

} // namespace k42mc::internal
