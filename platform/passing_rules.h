// The rules of return addresses in modules that can be unloaded, and another be loaded in their place.
// So each is confirmed, whenever it is used, by what the module that is there now says of the function.
#pragma once

#include "frame_info.h"
#include "unwind_rules.h"

namespace k42mc::platform {

// Returns false if the rule is not known, or not of what is there now.
bool recall_rule(const FrameTable &table, uintptr_t return_address, UnwindRule &rule);

void remember_rule(const FrameTable &table, uint32_t index, uintptr_t return_address, UnwindRule rule);

} // namespace k42mc::platform
