// What the checkers do around a fork.
#pragma once

namespace k42mc::internal {

// Arranges for it, once in a process: one set of handlers for all locks, since their order is one. To be
// called ahead of the first lock, or a child could be forked without them while that is held. Keeps
// errno.
void hook_fork();

} // namespace k42mc::internal
