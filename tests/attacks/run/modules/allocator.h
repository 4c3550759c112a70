// An allocator as programs link them: malloc and its like, and functions of its own beside them.
#pragma once

#include <cstddef>

extern "C" {
void *arena_malloc(size_t size); // free releases it
int arena_blocks_released(void);
void tc_free(void *block); // what malloc gave
}
