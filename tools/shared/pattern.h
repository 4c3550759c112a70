// Patterns of functions, files and modules, as the library has them.
#pragma once

#include "base/pattern.h" // IWYU pragma: export
