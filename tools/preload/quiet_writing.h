// While a thread of the program's writes for the checker: neither a limit on the size of files nor a request
// to cancel the thread may end what would have gone on without the checker.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

class QuietWriting {
public:
    QuietWriting() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
        sigemptyset(&size_signal_);
        sigaddset(&size_signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &size_signal_, &mask_);
    }
    ~QuietWriting() {
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        pthread_setcancelstate(cancel_state_, nullptr);
    }
    QuietWriting(const QuietWriting &) = delete;
    QuietWriting &operator=(const QuietWriting &) = delete;

    // To be told how a write ended: 0 or an errno. Takes the signal for a file that is too large, which is
    // waiting then and not before: sandboxes know few programs that wait for signals.
    void ended_with(int failure) {
        constexpr timespec at_once{};
        if (failure == EFBIG)
            sigtimedwait(&size_signal_, nullptr, &at_once);
    }

private:
    int cancel_state_ = PTHREAD_CANCEL_ENABLE;
    sigset_t size_signal_;
    sigset_t mask_;
};
