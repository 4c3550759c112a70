/*
 * Guarded blocks: the header and the tail around every block that the wrappers hand out.
 *
 * Glossary
 *   raw memory    What the underlying allocator returned, and what it gets back.
 *   header        Eight words in front of the user bytes: the magic word, the trace of the allocation
 *                 (five return addresses), the alignment word, the raw size.
 *   user pointer  What the caller gets: the address of the first byte after the header, the first of the
 *                 user bytes.
 *   tail          Eight words behind the user bytes: seven of guard pattern and the arena. It begins
 *                 where the user bytes end, at any address.
 *   arena         The allocator family that a block belongs to; its allocator type plus 1.
 *   alignment     The binary logarithm of the alignment in the top 5 bits; below it the offset of the
 *   word          header from the start of the raw memory. 0 for a block without its own alignment.
 *   sound         Said of a guard that holds what it should, and of a block with two such guards.
 * A word is as wide as a pointer.
 *
 * After a sound release the header holds the freed pattern (seven words) and the address of the tail;
 * the tail holds two words of freed pattern, the trace of the release and the arena.
 */
#ifndef K42MC_GUARD_H
#define K42MC_GUARD_H

#include <k42mc/base.h>
#include <stdint.h>

K42MC_BEGIN_DECLS

enum {
    K42MC_ARENA_UNKNOWN,
    K42MC_ARENA_STD,
    K42MC_ARENA_SYS,
    K42MC_ARENA_FIX,
    K42MC_ARENA_VAR,
    K42MC_ARENA_SHM,
    K42MC_ARENAS
};

enum {
    K42MC_DEFECT_NONE,
    K42MC_DEFECT_BF, /* released through another arena */
    K42MC_DEFECT_DF, /* released twice */
    K42MC_DEFECT_WO, /* write overflow: the tail is damaged */
    K42MC_DEFECT_WU, /* write underflow: the header is damaged, or this is not a guarded block */
    K42MC_DEFECTS
};

enum {
    K42MC_GUARD_WORDS = 8, /* of a header, and of a tail */
    K42MC_GUARD_TRACE = 5  /* frames of a block's own traces */
};

/* Bytes around the user bytes of a plain block. */
#define K42MC_GUARD_OVERHEAD (2 * K42MC_GUARD_WORDS * sizeof(void *))

/* The first word is the header's magic word. */
K42MC_DATA const unsigned char k42mc_head_alloc_guard[32];
/* The first 28 bytes fill the seven guard words of a tail; where those are 56 bytes wide, twice. */
K42MC_DATA const unsigned char k42mc_tail_alloc_guard[32];
/* The first 28 bytes mark a released block, in the same way. */
K42MC_DATA const unsigned char k42mc_free_guard[32];

K42MC_DATA const char *const k42mc_arena_desc[K42MC_ARENAS];
K42MC_DATA const char *const k42mc_defect_desc[K42MC_DEFECTS];

/* The text of the last defect report, for debuggers and crash handlers. */
K42MC_DATA char k42mc_panic_string[256];

/*
 * Lays header and tail out in raw memory.
 *   arena      The family's arena, which k42mc_guard_free will compare.
 *   alignment  In bytes: a power of two up to K42MC_ALIGN_MAX; 1 for none.
 *   raw        Memory of raw_size bytes; not null.
 *   raw_size   In bytes: user bytes + K42MC_GUARD_OVERHEAD, and alignment - 1 more when that is above 1.
 * Returns the user pointer. Cannot fail, allocates nothing, takes no lock.
 */
void *k42mc_guard_alloc(uint32_t arena, uint32_t alignment, void *raw, size_t raw_size);

/*
 * Checks a block that is being released and marks it as freed.
 *   arena    The arena of the family that releases it.
 *   user     The block's user pointer.
 * Returns the start of the raw memory, for the underlying allocator. On a defect it does not return: it
 * prints the defect line on standard output and stops the process.
 * Allocates nothing and takes no lock; errno keeps its value.
 */
void *k42mc_guard_free(uint32_t arena, void *user);

K42MC_END_DECLS

#endif
