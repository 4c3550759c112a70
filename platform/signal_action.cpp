#include "platform/signal_action.h"

#include <sys/syscall.h>
#include <unistd.h>

// The way back from a handler, in the words by which debuggers know it. Who walks the stack finds the registers of the
// interrupted code where the system has put them: 40 bytes above the stack pointer, in this order.
#if defined(__x86_64__)
#define SAVED(number, index)                                                                            \
    ".cfi_escape 0x10, " #number ", 3, 0x77, (40 + 8 * " #index ") & 0x7f | 0x80, (40 + 8 * " #index    \
    ") >> 7\n"
extern "C" void k42mc_return_from_signal();
__asm__(
    ".pushsection .text\n"
    ".hidden k42mc_return_from_signal\n"
    ".globl k42mc_return_from_signal\n"
    ".type k42mc_return_from_signal, @function\n"
    ".cfi_startproc\n"
    ".cfi_signal_frame\n"
    ".cfi_escape 0x0f, 4, 0x77, 0xa0, 0x01, 0x06\n" // its frame ends at the stack pointer that was saved
    SAVED(8, 0) SAVED(9, 1) SAVED(10, 2) SAVED(11, 3) SAVED(12, 4) SAVED(13, 5) SAVED(14, 6) SAVED(15, 7)
        SAVED(5, 8) SAVED(4, 9) SAVED(6, 10) SAVED(3, 11) SAVED(1, 12) SAVED(0, 13) SAVED(2, 14)
            SAVED(16, 16) "nop\n"
                          "k42mc_return_from_signal:\n"
                          "mov $15, %rax\n"
                          "syscall\n"
                          ".cfi_endproc\n"
                          ".size k42mc_return_from_signal, . - k42mc_return_from_signal\n"
                          ".popsection");
#endif

namespace k42mc::internal::platform {
namespace {

[[maybe_unused]] constexpr unsigned long has_restorer = 0x04000000;

bool set(int signo, const SignalAction *action, SignalAction *former) {
    return syscall(SYS_rt_sigaction, signo, action, former, sizeof action->mask) == 0;
}

} // namespace

bool SignalAction::is(void (*constant)(int)) const {
    return reinterpret_cast<uintptr_t>(handler) == reinterpret_cast<uintptr_t>(constant);
}

bool SignalAction::is_function() const {
    return !is(SIG_DFL) && !is(SIG_IGN);
}

bool SignalAction::ignores(int signo) const {
    return is(SIG_IGN) || (is(SIG_DFL) && (signo == SIGCHLD || signo == SIGURG || signo == SIGWINCH));
}

// One that wants no more than the number finds it where all do.
void SignalAction::call(int signo, siginfo_t *info, void *context) const {
    handler(signo, info, context);
}

bool set_handler(int signo, SignalAction::Handler handler, unsigned long flags, uint64_t mask,
                 SignalAction &former) {
    SignalAction action = {handler, flags | SA_SIGINFO, nullptr, {}};
#if defined(__x86_64__)
    action.restorer = k42mc_return_from_signal;
    action.flags |= has_restorer;
#endif
    action.mask[0] = static_cast<unsigned long>(mask);
#if defined(__i386__)
    action.mask[1] = static_cast<unsigned long>(mask >> 32);
#endif
    return set(signo, &action, &former);
}

bool set_action(int signo, const SignalAction &action) {
    return set(signo, &action, nullptr);
}

bool get_action(int signo, SignalAction &action) {
    return set(signo, nullptr, &action);
}

} // namespace k42mc::internal::platform
