#include "tools/preload/endings.h"

#include "platform/other_stack.h"
#include "platform/platform.h"
#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "tools/preload/reporter.h"
#include "wrappers/fault_actions.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

__thread int ending_put_off = 0;

namespace {

namespace platform = k42mc::internal::platform;

constexpr std::array faults = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
constexpr std::array requests = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM};

constinit LastReport write_last_report = nullptr;

bool is_fault(int number) {
    return std::ranges::count(faults, number) != 0;
}

bool is_ending(int number) {
    return is_fault(number) || std::ranges::count(requests, number) != 0;
}

void set_handler(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    NEXT(sigaction)(number, &action, nullptr);
}

// By the signal, as if nobody had looked. What the processor has raised it raises again.
void die_of(int number, const siginfo_t *info) {
    set_handler(number, SIG_DFL);
    const bool comes_again =
        info != nullptr && info->si_code > 0 &&
        (number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL);
    if (!comes_again)
        raise(number);
}

// One thread's ending is the process's. Others wait for it: they would cut its report off.
bool is_first() {
    static constinit std::atomic<bool> ending = false;
    return !ending.exchange(true);
}

void wait_for_end() {
    constexpr int most_naps = 100'000;
    for (int naps = 0; naps < most_naps; ++naps)
        platform::sleep_briefly();
}

void report_on_own_stack(const Ending &ending) {
    alignas(16) static constinit std::byte stack[64 << 10] = {};
    const auto report_of = [](void *given) { write_last_report(*static_cast<const Ending *>(given)); };
    platform::call_on(stack, report_of, const_cast<Ending *>(&ending));
}

// At a fault the thread may be in a handler that has little stack. A search needs to see the one that it is on.
void report(const Ending &ending) {
    if (ending.is_fault)
        report_on_own_stack(ending);
    else
        write_last_report(ending);
}

void end_by(int number, siginfo_t *info, const void *context) {
    const bool inside_checker = checker_depth != 0;
    const InsideChecker inside;
    if (platform::borrows_memory()) { // its parent's, which goes on
        die_of(number, info);
        return;
    }
    if (!is_first()) {
        if (is_fault(number)) {
            wait_for_end();
            die_of(number, info);
        }
        return;
    }
    platform::freeze_utc_offset(); // libc's lock for it may be held
    report({number, info, context, is_fault(number), inside_checker});
    die_of(number, info);
}

void handle(int number, siginfo_t *info, void *context) {
    const int saved_errno = errno;
    if (checker_depth != 0 && !is_fault(number))
        ending_put_off = number;
    else
        end_by(number, info, context);
    errno = saved_errno;
}

// All other signals wait: a handler of the program's must not start on top.
struct sigaction own_action() {
    struct sigaction action {};
    action.sa_sigaction = handle;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&action.sa_mask);
    return action;
}

bool is_own(const struct sigaction &action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == handle;
}

struct sigaction default_action() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    return action;
}

int set_next_action(int number, const struct sigaction *action, struct sigaction *former) {
    return k42mc::internal::is_taken_fault(number)
               ? k42mc::internal::exchange_fault_action(number, action, former)
               : NEXT(sigaction)(number, action, former);
}

// To the program, the default is what it set and what it finds.
int set_action(int number, const struct sigaction *action, struct sigaction *former) {
    const struct sigaction own = own_action();
    const bool to_default =
        action != nullptr && (action->sa_flags & SA_SIGINFO) == 0 && action->sa_handler == SIG_DFL;
    const bool watched = write_last_report != nullptr && is_ending(number);
    const int result = set_next_action(number, to_default && watched ? &own : action, former);
    if (result == 0 && former != nullptr && is_own(*former))
        *former = default_action();
    if (result == 0 && action != nullptr)
        signal_is_taken(number);
    return result;
}

// A way of setting a handler that names no flags, but implies some.
template <class Next> sighandler_t set_simply(Next next, int flags, int number, sighandler_t handler) {
    struct sigaction former {};
    if (handler != SIG_DFL && !k42mc::internal::is_taken_fault(number)) {
        const sighandler_t replaced = next(number, handler);
        signal_is_taken(number);
        return replaced == own_action().sa_handler ? SIG_DFL : replaced;
    }
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    return set_action(number, &action, &former) == 0 ? former.sa_handler : SIG_ERR;
}

} // namespace

void end_as_put_off() {
    const int number = ending_put_off;
    ending_put_off = 0;
    end_by(number, nullptr, nullptr);
}

void report_ahead_of_endings(LastReport last_report) {
    write_last_report = last_report;
    const struct sigaction own = own_action();
    const auto watch = [&](int number) {
        struct sigaction former {};
        if (NEXT(sigaction)(number, nullptr, &former) == 0 && former.sa_handler == SIG_DFL)
            NEXT(sigaction)(number, &own, nullptr);
    };
    std::ranges::for_each(faults, watch);
    std::ranges::for_each(requests, watch);
}

constexpr int one_shot = static_cast<int>(SA_RESETHAND | SA_NODEFER);

extern "C" {

sighandler_t bsd_signal(int number, sighandler_t handler) noexcept; // which newer headers leave out

EXPORTED int sigaction(int number, const struct sigaction *action, struct sigaction *former) noexcept {
    return set_action(number, action, former);
}

EXPORTED sighandler_t signal(int number, sighandler_t handler) noexcept {
    return set_simply(NEXT(signal), SA_RESTART, number, handler);
}

EXPORTED sighandler_t ssignal(int number, sighandler_t handler) noexcept {
    return set_simply(NEXT(ssignal), SA_RESTART, number, handler);
}

EXPORTED sighandler_t bsd_signal(int number, sighandler_t handler) noexcept {
    return set_simply(NEXT(bsd_signal), SA_RESTART, number, handler);
}

EXPORTED sighandler_t __sysv_signal(int number, sighandler_t handler) noexcept {
    return set_simply(NEXT(__sysv_signal), one_shot, number, handler);
}

EXPORTED sighandler_t sysv_signal(int number, sighandler_t handler) noexcept {
    return set_simply(NEXT(sysv_signal), one_shot, number, handler);
}

// Ahead of a signal that is let through, what it does is set: it may be there already.
EXPORTED sighandler_t sigset(int number, sighandler_t handler) noexcept {
    const bool holds = handler == SIG_HOLD;
    struct sigaction action {
    }, former{};
    action.sa_handler = handler;
    if (set_action(number, holds ? nullptr : &action, &former) != 0)
        return SIG_ERR;
    sigset_t one;
    sigset_t before;
    sigemptyset(&one);
    sigaddset(&one, number);
    pthread_sigmask(holds ? SIG_BLOCK : SIG_UNBLOCK, &one, &before);
    return sigismember(&before, number) != 0 ? SIG_HOLD : former.sa_handler;
}

EXPORTED int sigignore(int number) noexcept {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    return set_action(number, &action, nullptr);
}
}
