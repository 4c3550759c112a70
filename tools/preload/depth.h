// Whether this thread is inside the checker, whose own allocations go to libc and whose own descriptors
// nobody watches.
#pragma once

extern __thread int checker_depth;

// The number of a signal that came meanwhile, and that ends the process as soon as the thread is out again.
extern __thread int ending_put_off;
void end_as_put_off();

class InsideChecker {
public:
    InsideChecker() { ++checker_depth; }
    ~InsideChecker() {
        if (--checker_depth == 0 && ending_put_off != 0) [[unlikely]]
            end_as_put_off();
    }
    InsideChecker(const InsideChecker &) = delete;
    InsideChecker &operator=(const InsideChecker &) = delete;
};
