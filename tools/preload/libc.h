// libc's allocator under the names that nothing takes the place of.
#pragma once

#include <stddef.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t nmemb, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *ptr);
}
