#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

// k42mcx_page_guards with as much memory as is wanted; 0 for as much as usual.
int switch_page_guards(uint32_t one_in, uint32_t flags, size_t memory);

} // namespace k42mc::internal
