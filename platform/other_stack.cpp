#include "platform/other_stack.h"

#include <stdint.h>

// Its frame stays on the stack that it is called on, and leads whoever walks the other one back there.
extern "C" void k42mc_call_on(void *stack_end, void (*function)(void *), void *argument);
__asm__(".pushsection .text\n"
        ".hidden k42mc_call_on\n"
        ".globl k42mc_call_on\n"
        ".type k42mc_call_on, @function\n"
        "k42mc_call_on:\n"
        ".cfi_startproc\n"
#if defined(__x86_64__)
        "push %rbp\n"
        ".cfi_def_cfa_offset 16\n"
        ".cfi_offset rbp, -16\n"
        "mov %rsp, %rbp\n"
        ".cfi_def_cfa_register rbp\n"
        "mov %rdi, %rsp\n"
        "mov %rdx, %rdi\n"
        "call *%rsi\n"
        "leave\n"
        ".cfi_def_cfa rsp, 8\n"
#elif defined(__i386__)
        "push %ebp\n"
        ".cfi_def_cfa_offset 8\n"
        ".cfi_offset ebp, -8\n"
        "mov %esp, %ebp\n"
        ".cfi_def_cfa_register ebp\n"
        "mov 8(%ebp), %esp\n"
        "sub $12, %esp\n" // so that the argument's end is aligned
        "push 16(%ebp)\n"
        "call *12(%ebp)\n"
        "leave\n"
        ".cfi_def_cfa esp, 4\n"
#else
#error "no way to another stack on this processor"
#endif
        "ret\n"
        ".cfi_endproc\n"
        ".size k42mc_call_on, . - k42mc_call_on\n"
        ".popsection");

namespace k42mc::internal::platform {

void call_on(std::span<std::byte> stack, void (*function)(void *), void *argument) {
    constexpr uintptr_t alignment = 16;
    const auto end = reinterpret_cast<uintptr_t>(stack.data() + stack.size());
    k42mc_call_on(stack.data() + (stack.size() - end % alignment), function, argument);
}

} // namespace k42mc::internal::platform
