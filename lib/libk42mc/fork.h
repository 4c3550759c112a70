// What the checkers do around a fork.
#pragma once

namespace k42mc {

// Arranges for it, once in a process: one set of handlers for all locks, since their order is one.
void hook_fork();

} // namespace k42mc
