/*
 * PX: the prefix table. Elements are stored under a key and a prefix length in bits, as routes are, and
 * the table finds the longest stored prefix that a key starts with. Elements with the same prefix form a
 * chain. The table allocates a node for each distinct prefix, and one for each place where prefixes part
 * ways. See ds.h for what holds for all families.
 *
 * Keys are bit strings: bit 0 is the most significant bit of the first byte in memory. An element holds,
 * at offsets of the caller's choice:
 *   its key     bytes, of which the first length bits count
 *   its length  uint16_t: 0 to 32767 bits; 0 is the prefix of every key
 *   its chain   pointer to the next element with the same prefix, or null. The table writes it; it must
 *               be null when the element is inserted, unless it heads a chain with the same prefix.
 * Key and length must not change while the element is in the table.
 *
 * A search with a length reads that many bits of the key. One without may read as many as the longest
 * stored prefix has: all keys should have the same full width.
 */
#ifndef K42MC_PX_H
#define K42MC_PX_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/* A prefix. Its bits are those of its elements' keys, or of the keys below it. */
typedef struct PXNode {
    struct PXNode *left;  /* to the longer prefixes that go on with 0, or null */
    struct PXNode *right; /* to those that go on with 1, or null */
    void *element;        /* the first of the chain; null where prefixes only part ways */
    int16_t length;       /* in bits */
} PXNode;

typedef struct PXTable {
    PXNode *root; /* null when empty */
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
    DSAllocHook alloc;
    uint32_t chainOffset;  /* bytes from an element to its chain link */
    uint32_t keyOffset;    /* bytes from an element to its key */
    uint32_t lengthOffset; /* bytes from an element to its prefix length */
} PXTable;

/* Orders of a visit. In table order a prefix comes after those that extend it with 0. */
#define PX_IN_ORDER         0 /* table order: left side, node, right side */
#define PX_REVERSE_IN_ORDER 1
#define PX_PRE_ORDER        2 /* node, left side, right side: each prefix before those that extend it */
#define PX_POST_ORDER       3 /* left side, right side, node: each prefix after those that extend it */

/*
 * Creates an empty table.
 *   table            Receives the header; null on failure.
 *   alloc, dealloc   Hooks for header and nodes, or null.
 *   chainOffset      Bytes from an element to its chain link.
 *   keyOffset        Bytes from an element to its key.
 *   lengthOffset     Bytes from an element to its prefix length.
 *   destroy          Hook for elements the table gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t PXInit(PXTable **table, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t chainOffset,
               uint32_t keyOffset, uint32_t lengthOffset, DSDestroyHook destroy);

/* Destroys all elements, frees the nodes and the header and sets *table to null. */
void PXDeinit(PXTable **table);

/* Hands every element to the destroy hook and frees the nodes; the table stays, empty. O(n). */
void PXDestroy(PXTable *table);

/* Returns 1 when the table holds no element, else 0. */
int PXIsEmpty(const PXTable *table);

/* Returns some element, found in a few steps; null when the table is empty. */
void *PXAny(const PXTable *table);

/*
 * Inserts an element, at the front of the chain where its prefix is there already. It must not be in the
 * table. Returns DS_OK, or DS_NOMEM with the table unchanged. O(length).
 */
int32_t PXInsert(PXTable *table, void *element);

/* Returns the first element of the longest prefix that the key starts with, or null. */
void *PXSearchLMP(const PXTable *table, const void *key);

/* The same among the prefixes of at most length bits. O(length). */
void *PXSearchLMPForPrefix(const PXTable *table, const void *key, int16_t length);

/* Returns the first element of the prefix that is the first length bits of key, or null. O(length). */
void *PXSearch(const PXTable *table, const void *key, int16_t length);

/* Removes one element, which must be in the table, from the table and its chain. O(length + chain). */
void PXRemove(PXTable *table, void *element);

/*
 * Removes the prefix that is the first length bits of key, with all its elements. Returns the first of
 * them, which are still a chain, or null when there are none. O(length).
 */
void *PXRemoveByKey(PXTable *table, const void *key, int16_t length);

/* As PXRemove, and hands the element to the destroy hook. */
void PXRemoveAndDestroy(PXTable *table, void *element);

/*
 * As PXRemoveByKey, and hands the elements to the destroy hook in the order of their chain. Returns
 * DS_OK, or DS_FAILURE when there are none.
 */
int32_t PXRemoveAndDestroyByKey(PXTable *table, const void *key, int16_t length);

/*
 * Steps and visits go from prefix to prefix: they give the first element of each chain.
 */

/* The first, the last in table order; null when the table is empty. */
void *PXFirst(const PXTable *table);
void *PXLast(const PXTable *table);

/* The one after, the one before the prefix of an element, which must be in the table; or null. */
void *PXNext(const PXTable *table, const void *element);
void *PXPrev(const PXTable *table, const void *element);

/* Calls visit for each prefix, in the given order; does nothing for an unknown order. O(n). */
void PXVisit(const PXTable *table, int order, DSVisitFn visit);

/*
 * The same with an argument. Returns the first nonzero result, where the walk ends, or 0. With an
 * unknown order it is 1, unless the table is empty. O(n).
 */
int32_t PXVisitWithArg(const PXTable *table, int order, DSVisitArgFn visit, void *argument);

/* Prints how many prefixes there are, how deep they lie, and their share of the nodes. O(n). */
void PXInfo(const PXTable *table);

/* Tests that lengths grow on the way down and prints the first fault. Returns DS_OK or DS_FAILURE. */
int32_t PXCheck(const PXTable *table);

K42MC_END_DECLS

#endif
