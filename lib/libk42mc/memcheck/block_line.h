// The line of a report for one block.
#pragma once

#include "memcheck/state.h"

#include <stdio.h>

namespace k42mc::internal {

// "file:line:tag:type:0xADDRESS:size:cycles".
void print_block(FILE *out, const MCAllocRec &record, const char *tag);

} // namespace k42mc::internal
