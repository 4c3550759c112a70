// While a thread of the program's writes for the checker: neither a limit on the size of files nor a request
// to cancel the thread may end what would have gone on without the checker.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <time.h>

class QuietWriting {
public:
    QuietWriting() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGXFSZ) != 0;
        sigemptyset(&size_signal_);
        sigaddset(&size_signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &size_signal_, &mask_);
    }
    ~QuietWriting() {
        constexpr timespec at_once{};
        if (!was_pending_)
            sigtimedwait(&size_signal_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        pthread_setcancelstate(cancel_state_, nullptr);
    }
    QuietWriting(const QuietWriting &) = delete;
    QuietWriting &operator=(const QuietWriting &) = delete;

private:
    int cancel_state_ = PTHREAD_CANCEL_ENABLE;
    bool was_pending_;
    sigset_t size_signal_;
    sigset_t mask_;
};
