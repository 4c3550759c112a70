// The signals of faults, taken over: whoever handles them, or will, is called for what is none of ours, as if nothing had
// come between.
#pragma once

#include <signal.h>

namespace k42mc::internal {

// Returns whether a fault was ours. Then what faulted is tried again.
using FaultHandler = bool (*)(const siginfo_t &info, const void *context);

// Once for all. False where the system refuses it.
bool take_faults(FaultHandler handler);

// Whether a signal's action is not the one that the system has.
bool is_taken_fault(int number);

// sigaction for such a signal: both are the process's own.
int exchange_fault_action(int number, const struct sigaction *action, struct sigaction *former);

} // namespace k42mc::internal
