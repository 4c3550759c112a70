// Looking at the process as it is at one moment.
#pragma once

#include "base/function_ref.h"
#include "memcheck/reach/moment.h"

namespace k42mc::internal {

// Has somebody look at the process, in a copy of it where other threads wait for that: what he finds goes to shared memory.
// Before, asks with gMCLock held whether that is needed. Where the system denies a copy, threads stand still until the end,
// which is said on standard error. Takes the checker's lock, and lets it go. Returns null, or in words why nobody can look.
// One at a time.
const char *inspect(const char *function, const Caller &caller, FunctionRef<bool()> is_needed,
                    FunctionRef<void(const Moment &)> look);

// In the child of a fork, where nobody looks.
void forget_inspections();

} // namespace k42mc::internal
