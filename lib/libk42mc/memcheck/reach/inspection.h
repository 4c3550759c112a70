// Looking at the process as it is at one moment.
#pragma once

#include "base/function_ref.h"
#include "memcheck/reach/moment.h"

#include <sys/types.h>

namespace k42mc::internal {

class Inspection {
public:
    // Has somebody look at the process, in a copy of it where other threads wait for that: what he finds goes to shared
    // memory. Before, asks with gMCLock held whether that is needed. Takes the checker's lock, and lets it go. Returns
    // null, or in words why nobody can look. One at a time.
    const char *run(const char *function, const Caller &caller, FunctionRef<bool()> is_needed,
                    FunctionRef<void(const Moment &)> look);

    // Whether other threads had to stand still until the end, as the system has denied a copy of the process.
    bool held_threads() const { return held_threads_; }

private:
    const char *start(const Caller &caller, platform::ThreadCaches caches,
                      FunctionRef<void(const Moment &)> look);

    bool held_threads_ = false;
    pid_t copy_ = -1;
};

// In the child of a fork, where nobody looks.
void forget_inspections();

} // namespace k42mc::internal
