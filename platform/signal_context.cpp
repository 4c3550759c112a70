#include "platform/signal_context.h"

#include "platform/platform.h"

#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

#if defined(__x86_64__)
constexpr int place = REG_RIP, stack_pointer = REG_RSP;
constexpr uintptr_t legacy_bytes = 0; // ahead of what both widths have
#else
constexpr int place = REG_EIP, stack_pointer = REG_ESP;
constexpr uintptr_t legacy_bytes = 112;
#endif

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

bool is_on_signal_stack() {
    stack_t stack;
    return syscall(SYS_sigaltstack, nullptr, &stack) != 0 || (stack.ss_flags & SS_ONSTACK) != 0;
}

void *interrupted_at(const void *context) {
    return reinterpret_cast<void *>(static_cast<const ucontext_t *>(context)->uc_mcontext.gregs[place]);
}

} // namespace k42mc::internal::platform
