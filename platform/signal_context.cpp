#include "platform/signal_context.h"

#include "platform/platform.h"

#include <iterator>

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

#if defined(__x86_64__)
constexpr int stack_pointer = REG_RSP;
constexpr int saved_at[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                            REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                            REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
constexpr const char *names[] = {"rax", "rdx", "rcx", "rbx", "rsi", "rdi", "rbp", "rsp", "r8",
                                 "r9",  "r10", "r11", "r12", "r13", "r14", "r15", "rip"};
constexpr uintptr_t legacy_bytes = 0; // ahead of what both widths have
#else
constexpr int stack_pointer = REG_ESP;
constexpr int saved_at[] = {REG_EAX, REG_ECX, REG_EDX, REG_EBX, REG_ESP,
                            REG_EBP, REG_ESI, REG_EDI, REG_EIP};
constexpr const char *names[] = {"eax", "ecx", "edx", "ebx", "esp", "ebp", "esi", "edi", "eip"};
constexpr uintptr_t legacy_bytes = 112;
#endif

static_assert(std::size(saved_at) == Registers::count && std::size(names) == Registers::count);

constexpr uintptr_t extended_bytes = 512, described_at = 464; // of what both widths have

// The system describes at its end what comes behind it.
uintptr_t size_of_vectors(uintptr_t state) {
    const auto &described = *reinterpret_cast<const _fpx_sw_bytes *>(
        state + legacy_bytes + described_at); // NOLINT(performance-no-int-to-ptr)
    return described.magic1 == FP_XSTATE_MAGIC1 ? described.extended_size
                                                : legacy_bytes + extended_bytes;
}

} // namespace

SavedRegisters saved_registers(const void *context) {
    const auto &interrupted = *static_cast<const ucontext_t *>(context);
    const mcontext_t &machine = interrupted.uc_mcontext;
    const auto stack = static_cast<uintptr_t>(machine.gregs[stack_pointer]);
    const auto general = reinterpret_cast<uintptr_t>(machine.gregs);
    const auto vectors = reinterpret_cast<uintptr_t>(machine.fpregs);
    return {
        general,
        general + sizeof machine.gregs,
        vectors,
        vectors != 0 ? vectors + size_of_vectors(vectors) : 0,
        stack,
        stack - reinterpret_cast<uintptr_t>(interrupted.uc_stack.ss_sp) < interrupted.uc_stack.ss_size};
}

Registers registers_of(const void *context) {
    const auto &saved = static_cast<const ucontext_t *>(context)->uc_mcontext.gregs;
    Registers registers;
    for (int number = 0; number < Registers::count; ++number)
        registers[number] = static_cast<uintptr_t>(saved[saved_at[number]]);
    return registers;
}

const char *saved_register_name(const void *context, uintptr_t at) {
    const SavedRegisters saved = saved_registers(context);
    if (at >= saved.vectors_begin && at < saved.vectors_end)
        return "vector register";
    for (int number = 0; number < Registers::count; ++number)
        if ((at - saved.begin) / sizeof(greg_t) == static_cast<uintptr_t>(saved_at[number]))
            return names[number];
    return "other register";
}

const char *register_name(int number) {
    return names[number];
}

bool is_on_signal_stack() {
    stack_t stack;
    return syscall(SYS_sigaltstack, nullptr, &stack) != 0 || (stack.ss_flags & SS_ONSTACK) != 0;
}

bool was_write(const void *context) {
    constexpr greg_t written = 2; // of the processor's code for a page fault
    return (static_cast<const ucontext_t *>(context)->uc_mcontext.gregs[REG_ERR] & written) != 0;
}

} // namespace k42mc::internal::platform
