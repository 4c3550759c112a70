#include "allocator.h"

#include <cstdlib>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t nmemb, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *ptr);
}

namespace {

alignas(16) char arena[4096];
size_t used = 0;
int released = 0;

bool is_in_arena(void *block) {
    return block >= arena && block < arena + sizeof arena;
}

} // namespace

extern "C" {

void *arena_malloc(size_t size) {
    void *const block = arena + used;
    used += (size + 15) / 16 * 16;
    return block;
}

int arena_blocks_released(void) {
    return released;
}

void *malloc(size_t size) {
    return __libc_malloc(size);
}

void *calloc(size_t nmemb, size_t size) {
    return __libc_calloc(nmemb, size);
}

void *realloc(void *ptr, size_t size) {
    return __libc_realloc(ptr, size);
}

void *memalign(size_t alignment, size_t size) {
    return __libc_memalign(alignment, size);
}

void free(void *block) {
    if (is_in_arena(block))
        ++released;
    else
        __libc_free(block);
}

void tc_free(void *block) {
    free(block);
}
}
