/*
 * HT: the hash table, with a chain of elements for each bucket. The number of buckets follows the number
 * of elements, so that insertion, search and removal take constant time on average. See ds.h for what
 * holds for all families.
 *
 * An element's key lies keyOffset bytes into it; a key argument is the address of a key that is laid out
 * in the same way. Keys of linked elements must not change. Equal keys are allowed: search and removal
 * by key then find the one inserted last, until the table changes its size.
 *
 * The order of iteration is that of the buckets, and in each the one moved or inserted last comes first.
 */
#ifndef K42MC_HT_H
#define K42MC_HT_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/* Returns the hash of a key. */
typedef uint32_t (*HTHashFn)(const void *key);

/* Returns 0 when the keys are equal. The key sought or inserted comes first, an element's key second. */
typedef int32_t (*HTCompareFn)(const void *sought, const void *key);

/* The link that every element embeds. A removed element's link keeps what it last held. */
typedef struct HTLink {
    struct HTLink *next; /* null in the last element of a chain */
} HTLink;

/* A size that a table can have: 31, 63, 127, ... 65521 buckets. */
typedef struct HTSizeRow {
    uint32_t buckets;
    uint32_t growAt; /* elements, 8 for each bucket; UINT32_MAX in the last row, which never grows */
} HTSizeRow;

typedef struct HTTable {
    uint32_t count;           /* elements */
    uint32_t keyOffset;       /* bytes from an element to its key */
    uint32_t linkOffset;      /* bytes from an element to its link */
    const HTSizeRow *sizeRow; /* the current one in a row of sizes */
    HTHashFn hash;            /* a key's bucket is its hash modulo the number of buckets */
    HTLink **buckets;         /* the first link of each chain, or null */
    HTCompareFn compare;
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
    DSAllocHook alloc; /* for the buckets of another size */
} HTTable;

/*
 * Creates an empty table of 31 buckets.
 *   table            Receives the header; null on failure.
 *   alloc, dealloc   Hooks for the header and the buckets, or null.
 *   linkOffset       Bytes from an element to its HTLink.
 *   keyOffset        Bytes from an element to its key.
 *   hash, compare    Hooks for keys, never null. Equal keys must have equal hashes.
 *   destroy          Hook for elements the table gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t HTInit(HTTable **table, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               uint32_t keyOffset, HTHashFn hash, HTCompareFn compare, DSDestroyHook destroy);

/* Sets *table to null, destroys all elements and frees buckets and header. */
void HTDeinit(HTTable **table);

/*
 * Hands every element to the destroy hook, last bucket to first; the table stays, empty. From 127
 * buckets on it goes back to 31; if there is no memory for those, it keeps what it has. O(n + buckets).
 */
void HTDestroy(HTTable *table);

/* Returns 1 when the table holds no element, else 0. */
int HTIsEmpty(const HTTable *table);

/*
 * Inserts an element.
 *   existing  Null to link the element without looking for its key. Otherwise receives null when the
 *             element was linked, or the element that has its key, and the table is unchanged.
 * O(1) on average. Before that, the table may change its size, in O(n): it grows when this would be the
 * 8th element for each bucket, and shrinks when this would still be too few for the size two below.
 * If there is no memory for the new buckets, it keeps the old ones, and the element goes there.
 */
void HTInsert(HTTable *table, void *element, void **existing);

/* Returns the first element with this key in its bucket's chain, or null. O(1) on average. */
void *HTSearch(const HTTable *table, const void *key);

/* Unlinks an element. Nothing happens when it is not in the table. O(1) on average. */
void HTRemove(HTTable *table, void *element);

/* Unlinks the element that a search for this key finds. Returns it, or null when there is none. */
void *HTRemoveByKey(HTTable *table, const void *key);

/* As HTRemove, and hands the element to the destroy hook if it was in the table. */
void HTRemoveAndDestroy(HTTable *table, void *element);

/* As HTRemoveByKey, and destroys the element. Returns DS_OK, or DS_FAILURE when there is none. */
int32_t HTRemoveAndDestroyByKey(HTTable *table, const void *key);

/*
 * The first element, the one after an element of the table; null when there is none. Inserting may
 * change the order. O(1) on average, unless most buckets are empty.
 */
void *HTFirst(const HTTable *table);
void *HTNext(const HTTable *table, const void *element);

/* Calls visit for each element, in the same order and faster. O(n + buckets). */
void HTVisit(const HTTable *table, DSVisitFn visit);

/* The same with an argument. Returns the first nonzero result, where the walk ends, or 0. */
int32_t HTVisitWithArg(const HTTable *table, DSVisitArgFn visit, void *argument);

/* Prints the number of elements and how they spread over the buckets. O(n + buckets). */
void HTInfo(const HTTable *table);

/* A hash hook for keys of 32 bits: the value itself. */
uint32_t HTHash4B(const void *key);

/*
 * For hash hooks of keys of other lengths, in bytes: with each byte c, the hash so far, 0 at first, is
 * multiplied by 65587 and c added. O(length).
 */
uint32_t HTHashNB(const void *key, uint32_t length);

K42MC_END_DECLS

#endif
