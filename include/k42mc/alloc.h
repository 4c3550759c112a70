/*
 * The allocation wrappers: the standard allocator's functions and the memory manager's, each with the
 * caller's file name and line in front.
 *
 * Every block that a wrapper hands out carries guards (guard.h); every block that comes back is checked
 * first, and a damaged one stops the process with one line that says what is wrong. While the checker
 * is on (memcheck.h) each block is also recorded under its file and line.
 *
 * What holds for all of them:
 *   file    The caller's source file, kept by pointer: it must outlive the block. Pass a literal.
 *   line    The caller's line.
 *   Errors  A size that does not fit once the guards are added fails as if memory had run out, with
 *           errno ENOMEM.
 *   Lock    None to record. gMCLock for a line about the call, while somebody else holds it, and seldom
 *           otherwise; only while the checker is on.
 *   Threads Any thread, at any time: before MCInit, after MCDeinit and in exit handlers too. None of
 *           them is async-signal-safe.
 *   Owner   The caller owns what it is handed until it releases it through the same family.
 */
#ifndef K42MC_ALLOC_H
#define K42MC_ALLOC_H

#include <k42mc/base.h>

K42MC_BEGIN_DECLS

/* The largest alignment, in bytes, that a guarded block can record. */
#define K42MC_ALIGN_MAX 0x8000000

/* ---- The standard allocator's family (type and arena STD) ---- */

/*
 * Releases a block of the standard family. A null pointer is passed on to free and not reported.
 * errno keeps its value.
 */
void k42MC_free(const char *file, int line, void *ptr);

/* The same as k42MC_free, for code that still calls cfree. */
void k42MC_cfree(const char *file, int line, void *ptr);

/* Allocates size bytes. Returns the block, or null with errno set. */
void *k42MC_malloc(const char *file, int line, size_t size) K42MC_RELEASED_BY(k42MC_free, 3)
    K42MC_SIZE_IS(3);

/* Allocates nmemb * size bytes, all zero. Returns the block, or null with errno set. */
void *k42MC_calloc(const char *file, int line, size_t nmemb, size_t size)
    K42MC_RELEASED_BY(k42MC_free, 3) K42MC_SIZE_IS_PRODUCT(3, 4);

/*
 * Resizes a block of the standard family to size bytes. The block may move, and loses any alignment
 * beyond the ordinary one.
 *   ptr      A block, or null to allocate a new one.
 *   size     0 releases the block and returns null.
 *   Returns  The block. Null when memory ran out: then the old block is untouched and still recorded.
 */
void *k42MC_realloc(const char *file, int line, void *ptr, size_t size)
    K42MC_SIZE_IS(4) K42MC_MUST_CHECK;

/*
 * Allocates size bytes at a multiple of alignment.
 *   memptr     Receives the block, or null on failure.
 *   alignment  In bytes: a power of two from the size of a pointer to K42MC_ALIGN_MAX.
 *   Returns    0, 12 (ENOMEM) or 22 (EINVAL: the alignment). errno is never set.
 */
int k42MC_posix_memalign(const char *file, int line, void **memptr, size_t alignment,
                         size_t size) K42MC_MUST_CHECK;

/* Allocates size bytes at the start of a page. Returns the block, or null with errno set. */
void *k42MC_valloc(const char *file, int line, size_t size) K42MC_RELEASED_BY(k42MC_free, 3)
    K42MC_SIZE_IS(3);

/* ---- The memory manager's family (type and arena SHM) ----
 *
 * These call MM_malloc, MM_calloc, MM_realloc and MM_free, which the process provides if it has a memory
 * manager. In a process without one, the allocating wrappers return null, and the releasing ones check
 * the block and pass nothing on.
 */

/*
 * Releases a block of the memory manager's family. A null pointer goes to MM_free, and is reported (an
 * NF line) while the checker is on. errno keeps its value.
 */
void k42MC_MM_free(const char *file, int line, void *ptr);

/* Allocates size bytes. Returns the block, or null. */
void *k42MC_MM_malloc(const char *file, int line, size_t size) K42MC_RELEASED_BY(k42MC_MM_free, 3)
    K42MC_SIZE_IS(3);

/* Allocates nmemb * size bytes, all zero. Returns the block, or null. */
void *k42MC_MM_calloc(const char *file, int line, size_t nmemb, size_t size)
    K42MC_RELEASED_BY(k42MC_MM_free, 3) K42MC_SIZE_IS_PRODUCT(3, 4);

/* Resizes a block of the memory manager's family; otherwise as k42MC_realloc. */
void *k42MC_MM_realloc(const char *file, int line, void *ptr, size_t size)
    K42MC_SIZE_IS(4) K42MC_MUST_CHECK;

/* Copies the string s, which must not be null, into a new block. Returns the copy, or null. */
char *k42MC_MM_strdup(const char *file, int line, const char *s) K42MC_RELEASED_BY(k42MC_MM_free, 3);

K42MC_END_DECLS

#endif
