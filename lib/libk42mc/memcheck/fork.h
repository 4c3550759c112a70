// What the checker does around a fork.
#pragma once

namespace k42mc {

// Arranges for it, once in a process.
void hook_fork();

} // namespace k42mc
