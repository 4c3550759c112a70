// Whether a program itself says that a leak is known.
#pragma once

#include <span>

// Finds out how functions of C++ are called. May wait for the loader's lock.
void find_demangler();

// By lines "leak:PATTERN" and the functions and modules of a stack trace; source files are the reader's to know. With no
// lock held, and inside the checker.
bool is_suppressed(const char *suppressions, std::span<void *const> trace);
