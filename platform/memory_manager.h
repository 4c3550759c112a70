// The memory manager's allocator. A process that has none leaves these null.
#pragma once

#include <stddef.h>

extern "C" {
[[gnu::weak]] void *MM_malloc(size_t size);
[[gnu::weak]] void *MM_calloc(size_t nmemb, size_t size);
[[gnu::weak]] void *MM_realloc(void *ptr, size_t size);
[[gnu::weak]] void MM_free(void *ptr);
}
