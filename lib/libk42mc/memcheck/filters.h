// The backtrace filters: which allocation sites get a trace.
#pragma once

#include "memcheck/state.h"

namespace k42mc::internal {

// Whether the rules in force ask for the trace of an allocation.
bool wants_backtrace(const MCFilterKey &key);

bool MCFilterMatch(const MCFilterKey &a, const MCFilterKey &b);

// The destroy hook of the filter lists.
void MCFilterRelease(void *filter);

} // namespace k42mc::internal
