// Lets each allocation of a program fail, one in a run.
#pragma once

#include "tools/run/options.h"

// Runs the program once as it is, then once for each stack that its allocations had, and prints what became of it.
// Returns the exit status; throws std::runtime_error where there is nothing to run or to measure by.
int fail_each(const RunOptions &options);
