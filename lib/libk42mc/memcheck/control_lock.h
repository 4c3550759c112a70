#pragma once

#include "base/terminal.h"
#include "linkage/linkage.h"
#include "memcheck/sink.h"

#include <stdio.h>

namespace k42mc::internal {

// gMCLock for a control function, which must work while the checker is off too. Without the terminal's where
// the sink is borrowed: the process may hold that to its end, and still is to get its reports.
class ControlLock {
public:
    explicit ControlLock(const char *function) {
        if (!held_)
            fprintf(stderr, "%s: ERROR: MCLock1 failed!\n", function);
    }
    ~ControlLock() {
        if (held_)
            MCUnlock();
    }
    ControlLock(const ControlLock &) = delete;
    ControlLock &operator=(const ControlLock &) = delete;

    explicit operator bool() const { return held_; }

private:
    const TerminalLock terminal_{!sink_is_borrowed()};
    const bool held_ = pthread_mutex_lock(&gMCLock) == 0;
};

inline void say_not_initialized(const char *function) {
    fprintf(stderr, "%s: ERROR: MC not currently initialized\n", function);
}

} // namespace k42mc::internal
