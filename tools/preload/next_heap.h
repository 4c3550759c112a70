// The allocator that the program would have without the shim: libc's, or one that it brings along. While the
// functions are being looked up, libc's, under the names that nothing takes the place of.
#pragma once

#include "tools/preload/next.h"

#include <malloc.h>
#include <stdlib.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t nmemb, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *ptr);
}

inline void *next_malloc(size_t size) {
    return looking_up ? __libc_malloc(size) : NEXT(malloc)(size);
}

inline void *next_calloc(size_t nmemb, size_t size) {
    return looking_up ? __libc_calloc(nmemb, size) : NEXT(calloc)(nmemb, size);
}

inline void *next_realloc(void *ptr, size_t size) {
    return looking_up ? __libc_realloc(ptr, size) : NEXT(realloc)(ptr, size);
}

inline void *next_memalign(size_t alignment, size_t size) {
    return looking_up ? __libc_memalign(alignment, size) : NEXT(memalign)(alignment, size);
}

inline void next_free(void *ptr) {
    if (looking_up)
        __libc_free(ptr);
    else
        NEXT(free)(ptr);
}
