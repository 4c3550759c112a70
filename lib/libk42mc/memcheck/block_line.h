// The line of a report for one block.
#pragma once

#include "base/text_output.h"
#include "memcheck/registry.h"

namespace k42mc::internal {

// "file:line:tag:type:0xADDRESS:size:cycles".
void put_block(TextOutput &out, const RecordedBlock &block, const char *tag);

} // namespace k42mc::internal
