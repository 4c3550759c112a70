// Each stores at most so many return addresses, innermost first, and returns how many.
#pragma once

#include <stdint.h>

using Walker = int (*)(void **frames, int most);

#pragma GCC visibility push(default)
int walk_nothing(void **frames, int most);
int walk_ours(void **frames, int most);
int walk_pointers(void **frames, int most);
int walk_libc(void **frames, int most);
int walk_compiler(void **frames, int most);
void set_stack_end(void *end); // for walk_pointers
#pragma GCC visibility pop
