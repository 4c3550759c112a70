// What the modules behind this one define, from their own tables. The loader's lookup would take away what dlerror has
// yet to tell this thread.
#pragma once

namespace k42mc::internal::platform {

// The function that dlsym would find for RTLD_NEXT, among the modules that were loaded with the program; null where only
// the loader can tell. Waits for nobody.
void *next_definition(const char *name);

} // namespace k42mc::internal::platform
