// The line of a report for one block.
#pragma once

#include "base/text_output.h"
#include "memcheck/state.h"

namespace k42mc::internal {

// "file:line:tag:type:0xADDRESS:size:cycles".
void put_block(TextOutput &out, const MCAllocRec &record, const char *tag);

} // namespace k42mc::internal
