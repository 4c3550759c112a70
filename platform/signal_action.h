// What happens at a signal, as the system itself has it: libc keeps the two signals of its own back, and a shim that
// stands in front of libc need not know.
#pragma once

#include <signal.h>
#include <stdint.h>

namespace k42mc::internal::platform {

struct SignalAction {
    using Handler = void (*)(int signo, siginfo_t *info, void *context);

    Handler handler; // also a function of one argument, SIG_DFL or SIG_IGN
    unsigned long flags;
    void (*restorer)();
    unsigned long mask[8 / sizeof(unsigned long)]; // the signals that wait meanwhile

    bool is_function() const;
    bool ignores(int signo) const;
    void call(int signo, siginfo_t *info, void *context) const;

private:
    bool is(void (*constant)(int)) const;
};

// As sigaction, false where the system refuses it. The first is for handlers of this library.
bool set_handler(int signo, SignalAction::Handler handler, unsigned long flags, uint64_t mask,
                 SignalAction &former);
bool set_action(int signo, const SignalAction &action);
bool get_action(int signo, SignalAction &action);

} // namespace k42mc::internal::platform
