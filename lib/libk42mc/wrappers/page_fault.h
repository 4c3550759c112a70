// Accesses to what cannot be touched of blocks with pages of their own.
#pragma once

#include <signal.h>

namespace k42mc::internal {

// Tells of one, and stops the process unless it is to go on. Returns whether it was one, and can be tried again.
// For a signal handler: takes no lock, allocates nothing, and believes nothing that it reads.
bool tell_page_fault(const siginfo_t &info, const void *context);

} // namespace k42mc::internal
