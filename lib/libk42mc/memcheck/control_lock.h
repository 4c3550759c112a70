#pragma once

#include "base/checker_lock.h"
#include "base/fork.h"
#include "base/text_output.h"
#include "platform/platform.h"

namespace k42mc::internal {

// gMCLock for a control function, which must work while the checker is off too.
class ControlLock {
public:
    explicit ControlLock(const char *function) : lock_(take()) {
        if (!lock_)
            StandardErrorText()->print("%s: ERROR: MCLock1 failed!\n", function);
    }

    explicit operator bool() const { return static_cast<bool>(lock_); }

private:
    // Whatever may wait for locks that are not ours comes ahead of ours.
    static bool take() {
        hook_fork();
        platform::note_utc_offset();
        return take_checker_lock();
    }

    const Printing printing_;
    const CheckerLock lock_;
};

inline void say_not_initialized(const char *function) {
    StandardErrorText()->print("%s: ERROR: MC not currently initialized\n", function);
}

} // namespace k42mc::internal
