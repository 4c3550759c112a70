#pragma once

namespace k42mc::internal {

// A forked child has no thread that reports on signals.
void leave_signals_to_parent();

} // namespace k42mc::internal
