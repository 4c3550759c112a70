#include "tools/run/signals.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void change_mask(int how, int number) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    sigprocmask(how, &one, nullptr);
}

bool has_been_continued(pid_t program) {
    siginfo_t change{};
    return waitid(P_PID, static_cast<id_t>(program), &change, WCONTINUED | WNOHANG) == 0 &&
           change.si_pid == program;
}

// The program is in the group of this process, so the terminal's signals reach both; but of a hangup it may tell
// the session's leader alone. Timers from before the command was started know the command alone.
bool is_to_group(int number) {
    switch (number) {
    case SIGHUP:
        return getsid(0) != getpid();
    case SIGINT:
    case SIGQUIT:
    case SIGTSTP:
    case SIGTTIN:
    case SIGTTOU:
        return true;
    default:
        return false;
    }
}

// What the program sends its group, it gets as well.
bool reaches_program(const siginfo_t &signal, pid_t program) {
    if (signal.si_signo == SIGCONT)
        return has_been_continued(program);
    return signal.si_code == SI_KERNEL ? is_to_group(signal.si_signo) : signal.si_pid == program;
}

// To the shell both are one job. It has to be able to continue it, so SIGSTOP is none for this process: the
// terminal's signals do nothing where there is no such shell.
void stop_as(int number) {
    if (number == SIGSTOP)
        number = SIGTSTP;
    raise(number);
    change_mask(SIG_UNBLOCK, number); // stops here
    change_mask(SIG_BLOCK, number);
}

} // namespace

SignalRelay::SignalRelay() {
    struct sigaction waited {};
    waited.sa_handler = SIG_DFL; // ignored, it would take away what there is to wait for
    sigaction(SIGCHLD, &waited, &child_before_);
    sigfillset(&relayed_);
    sigdelset(&relayed_, SIGURG); // these do nothing unless they are handled
    sigdelset(&relayed_, SIGWINCH);
    sigprocmask(SIG_BLOCK, &relayed_, &mask_before_);
}

void SignalRelay::release() const {
    sigaction(SIGCHLD, &child_before_, nullptr);
    sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
}

int SignalRelay::wait_for(pid_t program) const {
    for (;;) {
        siginfo_t signal;
        if (sigwaitinfo(&relayed_, &signal) < 0)
            continue; // continued, as a rule
        if (signal.si_signo != SIGCHLD) {
            if (!reaches_program(signal, program))
                kill(program, signal.si_signo);
            continue;
        }
        int status = 0;
        while (waitpid(program, &status, WNOHANG | WUNTRACED) == program) {
            if (!WIFSTOPPED(status))
                return status;
            stop_as(WSTOPSIG(status));
        }
    }
}

void end_by(int number) {
    constexpr rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(number, SIG_DFL);
    raise(number);
    change_mask(SIG_UNBLOCK, number);
}
