// The modules that are there as long as the process is.
#pragma once

#include <link.h>

namespace k42mc::internal::platform {

// Whether the module was loaded with the program, and so is never unloaded. Waits for nobody.
bool is_startup_module(const link_map *module);

} // namespace k42mc::internal::platform
