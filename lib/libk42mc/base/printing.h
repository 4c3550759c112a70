// What a thread must be while it prints for the checker, with a lock of ours held.
#pragma once

#include "base/checker_lock.h"

#include <utility>

namespace k42mc::internal {

// Not cancelled: printing is a cancellation point, and a thread that ended there would leave the lock
// behind. And known to be printing: where a stream is one of the process's own, printing can allocate
// through the wrappers, which must not wait for that lock then.
class Printing {
public:
    Printing() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_); }
    ~Printing() {
        thread_is_printing = outer_;
        pthread_setcancelstate(cancel_state_, nullptr);
    }
    Printing(const Printing &) = delete;
    Printing &operator=(const Printing &) = delete;

private:
    int cancel_state_ = PTHREAD_CANCEL_ENABLE;
    const bool outer_ = std::exchange(thread_is_printing, true);
};

} // namespace k42mc::internal
