/*
 * A memory manager for few, large, growing tables: each block is a mapping of its own, moves without
 * being copied when it grows, and goes back to the system the moment it is freed.
 *
 * The k42MC_MM_ wrappers find these four functions by their names.
 */
#define _GNU_SOURCE
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>

void *MM_malloc(size_t size);
void *MM_calloc(size_t nmemb, size_t size);
void *MM_realloc(void *ptr, size_t size);
void MM_free(void *ptr);

/* In front of each block; as large as the strictest alignment, which the block then has. */
union mapping {
    size_t length;
    max_align_t align;
};

static size_t mapped_length(size_t size) {
    return sizeof(union mapping) + size;
}

static void *block_of(union mapping *mapping, size_t length) {
    if (mapping == MAP_FAILED)
        return NULL;
    mapping->length = length;
    return mapping + 1;
}

void *MM_malloc(size_t size) {
    size_t length = mapped_length(size);
    if (length < size)
        return NULL;
    return block_of(mmap(NULL, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
                    length);
}

/* Fresh pages are zero. */
void *MM_calloc(size_t nmemb, size_t size) {
    if (size != 0 && nmemb > SIZE_MAX / size)
        return NULL;
    return MM_malloc(nmemb * size);
}

void *MM_realloc(void *ptr, size_t size) {
    if (ptr == NULL)
        return MM_malloc(size);
    union mapping *mapping = (union mapping *)ptr - 1;
    size_t length = mapped_length(size);
    if (length < size)
        return NULL;
    return block_of(mremap(mapping, mapping->length, length, MREMAP_MAYMOVE), length);
}

void MM_free(void *ptr) {
    if (ptr == NULL)
        return;
    union mapping *mapping = (union mapping *)ptr - 1;
    munmap(mapping, mapping->length);
}
