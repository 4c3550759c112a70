/*
 * Conventions of the container families.
 *
 * Containers are intrusive: an element is the caller's memory and embeds the family's link at a byte
 * offset that is fixed when the container is created. Inserting copies and allocates nothing, and one
 * element can be in several containers at once, through one link each.
 *
 * XXInit allocates a header and stores its address in the caller's handle; XXDeinit frees it and clears
 * the handle. Every other operation takes the header.
 *
 * What holds for all families:
 *   Arguments  Not validated: a null header, or an element that is not in the container, is the
 *              caller's error.
 *   Owner      The caller owns the elements, unless the destroy hook says otherwise: XXDestroy, XXDeinit
 *              and the XXRemoveAndDestroy operations hand elements to it, and its default frees them.
 *   Visits     A callback must not insert, unlink or free elements of the container being walked.
 *   Threads    No function takes a lock: one thread at a time, or a lock of the caller's.
 *   Output     XXInfo, XXCheck and XXDump print on standard output; XXInfo and XXDump flush it.
 *
 * Which family, and what it costs (n elements; k bits of key; a hash table's costs are averages):
 *
 *   family            first, last  insert         remove an element   search  ordered
 *   SL list           O(1)         O(1)           its successor O(1)  -       as inserted
 *   DL list           O(1)         O(1)           O(1)                -       as inserted
 *   HT hash table     O(1), -      O(1)           O(1)                O(1)    no
 *   AVL tree          O(log n)     O(log n)       O(log n)            O(log n)  by comparison
 *   PT Patricia tree  O(k)         O(k)           O(k)                O(k)    by key bits
 *   PX prefix table   O(k)         O(k)           O(k)                O(k)    by prefix
 *   BH binary heap    O(1), -      O(log n)       O(log n)            -       least first
 *
 * SL when elements leave at the front; DL when they leave from anywhere; HT to find keys of any kind
 * when their order does not matter; AVL for unique keys in an order of the caller's choice; PT for unique
 * keys of a fixed length, compared bit by bit; PX to find the longest prefix of a key, as routing does;
 * BH to take the least element, time and again.
 */
#ifndef K42MC_DS_H
#define K42MC_DS_H

#include <k42mc/base.h>
#include <stdint.h>

K42MC_BEGIN_DECLS

/* What operations that can fail return. */
#define DS_OK      0
#define DS_FAILURE 1 /* nothing was done; from XXCheck: a fault was found */
#define DS_NOMEM   2 /* an allocation hook returned null; the operation had no effect */

/* Hooks. A null hook stands for its default: DSAlloc, DSRealloc, DSDealloc, DSDealloc. */
typedef void *(*DSAllocHook)(size_t size);
typedef void *(*DSReallocHook)(void *block, size_t size);
typedef void (*DSDeallocHook)(void *block);
typedef void (*DSDestroyHook)(void *element);

/* Visit callbacks. A nonzero result of the second stops the walk and becomes its result. */
typedef void (*DSVisitFn)(void *element);
typedef int32_t (*DSVisitArgFn)(void *element, void *argument);

/* The destroy hook of a container that does not own its elements. */
#define DS_DUMMY ((DSDestroyHook)DSDummyFunction)

/* Releases a block through k42MC_free. */
void DSDealloc(void *block);

/* Allocates size bytes through k42MC_malloc. Returns the block, which the caller owns, or null. */
void *DSAlloc(size_t size) K42MC_RELEASED_BY(DSDealloc, 1) K42MC_SIZE_IS(1);

/* Resizes a block (null: a new one) to size bytes through k42MC_realloc. Returns the block, or null. */
void *DSRealloc(void *block, size_t size) K42MC_SIZE_IS(2) K42MC_MUST_CHECK;

/* Does nothing; DS_DUMMY is its use. */
void DSDummyFunction(void);

/*
 * For allocation hooks that cannot go on: prints "<text>: memory failure" on standard output and ends
 * the process with exit status 255.
 */
void DSMemFail(const char *text) __attribute__((__noreturn__));

K42MC_END_DECLS

#endif
