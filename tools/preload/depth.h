// Whether this thread is inside the checker, whose own allocations go to libc and whose own descriptors
// nobody watches.
#pragma once

extern __thread int checker_depth;

class InsideChecker {
public:
    InsideChecker() { ++checker_depth; }
    ~InsideChecker() { --checker_depth; }
    InsideChecker(const InsideChecker &) = delete;
    InsideChecker &operator=(const InsideChecker &) = delete;
};
