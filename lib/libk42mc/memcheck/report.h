#pragma once

#include <stdint.h>

namespace k42mc::internal {

// One report cycle, as MCReport makes it; the limit in the host's byte order. Takes gMCLock.
void report(uint32_t limit);

// The same without a line of text, where the report takes another form. Takes gMCLock.
void count_cycle();

} // namespace k42mc::internal
