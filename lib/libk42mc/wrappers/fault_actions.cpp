#include "wrappers/fault_actions.h"

#include "platform/signal_action.h"

#include <atomic>
#include <errno.h>
#include <iterator>
#include <string.h>

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal {
namespace {

using platform::SignalAction;

// The process's own action for a signal. It is read by handlers, without a lock: so a new one has a place of its own,
// until many more have come.
class Former {
public:
    const SignalAction &get() const { return places_[current_.load(std::memory_order_acquire)]; }

    void set(const SignalAction &action) {
        const size_t next = (current_.load(std::memory_order_relaxed) + 1) % std::size(places_);
        places_[next] = action;
        current_.store(next, std::memory_order_release);
    }

private:
    SignalAction places_[16] = {};
    std::atomic<size_t> current_ = 0;
};

constinit Former former_fault, former_bus_error;
constinit FaultHandler handle_own = nullptr;

Former &former_of(int number) {
    return number == SIGBUS ? former_bus_error : former_fault;
}

constexpr SignalAction default_action = {};

// What the processor has raised it raises again, where it would have: so a core file shows the right place.
void end_by_default(int number, const siginfo_t &info) {
    platform::set_action(number, default_action);
    if (info.si_code <= 0)
        syscall(SYS_tgkill, getpid(), gettid(), number);
}

void pass_on(int number, siginfo_t &info, void *context) {
    const SignalAction former = former_of(number).get();
    if (!former.is_function()) {
        if (info.si_code > 0 || !former.ignores(number))
            end_by_default(number, info);
        return;
    }
    if ((former.flags & static_cast<unsigned long>(SA_RESETHAND)) != 0)
        former_of(number).set(default_action);
    former.call(number, &info, context);
}

void handle(int number, siginfo_t *info, void *context) {
    const int saved_errno = errno;
    const bool is_own = info->si_code > 0 && handle_own(*info, context);
    errno = saved_errno;
    if (!is_own)
        pass_on(number, *info, context);
}

// On the stack and with the signals held back that the process's own handler wants. Without one, all signals are: no
// handler is to start on top; and the thread's own stack does where it has no other, as it is not what has overflowed.
bool put_in_force(int number, const SignalAction &former) {
    constexpr unsigned long passed_on = SA_ONSTACK | SA_NODEFER | SA_RESTART;
    uint64_t mask = UINT64_MAX;
    SignalAction replaced;
    if (!former.is_function())
        return platform::set_handler(number, handle, SA_ONSTACK | SA_RESTART, mask, replaced);
    memcpy(&mask, former.mask, sizeof mask);
    return platform::set_handler(number, handle, former.flags & passed_on, mask, replaced);
}

bool take(int number) {
    SignalAction action;
    if (!platform::get_action(number, action))
        return false;
    former_of(number).set(action);
    return put_in_force(number, action);
}

// The system's kinds of both: libc's set of signals begins with the system's.
SignalAction to_system(const struct sigaction &action) {
    SignalAction result = {
        action.sa_sigaction, static_cast<unsigned long>(action.sa_flags), nullptr, {}};
    memcpy(result.mask, &action.sa_mask, sizeof result.mask);
    return result;
}

struct sigaction to_process(const SignalAction &action) {
    struct sigaction result {};
    result.sa_sigaction = action.handler;
    result.sa_flags = static_cast<int>(action.flags);
    memcpy(&result.sa_mask, action.mask, sizeof action.mask);
    return result;
}

} // namespace

bool take_faults(FaultHandler handler) {
    if (handle_own != nullptr)
        return true;
    handle_own = handler;
    if (take(SIGSEGV) && take(SIGBUS))
        return true;
    handle_own = nullptr;
    return false;
}

bool is_taken_fault(int number) {
    return handle_own != nullptr && (number == SIGSEGV || number == SIGBUS);
}

int exchange_fault_action(int number, const struct sigaction *action, struct sigaction *former) {
    const SignalAction before = former_of(number).get();
    if (action != nullptr) {
        const SignalAction wanted = to_system(*action);
        former_of(number).set(wanted);
        if (!put_in_force(number, wanted)) {
            former_of(number).set(before);
            errno = EPERM;
            return -1;
        }
    }
    if (former != nullptr)
        *former = to_process(before);
    return 0;
}

} // namespace k42mc::internal
