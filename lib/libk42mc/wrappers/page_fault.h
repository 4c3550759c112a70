// Accesses to what cannot be touched of blocks with pages of their own.
#pragma once

#include <signal.h>
#include <stddef.h>

namespace k42mc::internal {

// Tells of one, and stops the process unless it is to go on. Returns whether it was one, and can be tried again.
// For a signal handler: takes no lock, allocates nothing, and believes nothing that it reads.
bool tell_page_fault(const siginfo_t &info, const void *context);

// The same of a buffer that the system would not touch. Nothing where that was not for the pages of a block.
void tell_refused_buffer(const void *buffer, size_t size, bool is_write);

} // namespace k42mc::internal
