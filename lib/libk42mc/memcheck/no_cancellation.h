#pragma once

#include <pthread.h>

namespace k42mc {

// Printing is a cancellation point, and a thread that ended there would leave its lock behind.
class NoCancellation {
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
    NoCancellation(const NoCancellation &) = delete;
    NoCancellation &operator=(const NoCancellation &) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace k42mc
