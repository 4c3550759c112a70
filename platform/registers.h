// The registers that a frame is found by, as DWARF numbers them.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

constexpr intptr_t word = sizeof(uintptr_t);

struct Registers {
    // The numbers of the frame pointer, the stack pointer and the return address.
#if defined(__x86_64__)
    static constexpr int count = 17, fp = 6, sp = 7, ra = 16;
#elif defined(__i386__)
    static constexpr int count = 9, fp = 5, sp = 4, ra = 8;
#else
#error "no register numbers for this processor"
#endif

    uintptr_t &operator[](int number) {
        return values[number];
    }
    uintptr_t operator[](int number) const {
        return values[number];
    }

    uintptr_t values[count];
};

// The registers that calls preserve, and the place itself as return address. Inlined: a function of its
// own would be gone when the frame is looked at.
[[gnu::always_inline]] inline void capture(Registers &registers) {
#if defined(__x86_64__)
    __asm__ volatile("1: lea 1b(%%rip), %%rax\n\t"
                     "mov %%rax, 128(%0)\n\t"
                     "mov %%rbx, 24(%0)\n\t"
                     "mov %%rbp, 48(%0)\n\t"
                     "mov %%rsp, 56(%0)\n\t"
                     "mov %%r12, 96(%0)\n\t"
                     "mov %%r13, 104(%0)\n\t"
                     "mov %%r14, 112(%0)\n\t"
                     "mov %%r15, 120(%0)"
                     :
                     : "c"(registers.values)
                     : "rax", "memory");
#else
    __asm__ volatile("call 1f\n"
                     "1: pop %%eax\n\t"
                     "mov %%eax, 32(%0)\n\t"
                     "mov %%ebx, 12(%0)\n\t"
                     "mov %%esp, 16(%0)\n\t"
                     "mov %%ebp, 20(%0)\n\t"
                     "mov %%esi, 24(%0)\n\t"
                     "mov %%edi, 28(%0)"
                     :
                     : "c"(registers.values)
                     : "eax", "memory");
#endif
}

} // namespace k42mc::internal::platform
