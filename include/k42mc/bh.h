/*
 * BH: the binary heap, a priority queue of elements whose keys may be equal and may change. It keeps an
 * array of pointers to its elements, which doubles when it is full; nothing is allocated per element.
 * See ds.h for what holds for all families.
 *
 * Every element knows its slot in the array, so that one whose key has changed is put in its place, and
 * one in the middle is removed, without a search. The least element is in slot 1, and the element in
 * slot i never orders before the one in slot i / 2.
 */
#ifndef K42MC_BH_H
#define K42MC_BH_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/*
 * Compares two keys, given their addresses. Returns a negative number when the first orders before the
 * second, 0 when they are equal, a positive number when it orders after it.
 */
typedef int32_t (*BHCompareFn)(const void *key, const void *other);

/* The node that every element embeds. A removed element's node keeps what it last held. */
typedef struct BHNode {
    uint32_t i; /* the element's slot */
} BHNode;

typedef struct BHHeap {
    uint32_t count;      /* of elements */
    BHNode **slots;      /* of the elements, in 1 to count; slot 0 is not used */
    uint32_t capacity;   /* of the array, in slots, slot 0 included; 256 at first, never shrinks */
    uint32_t nodeOffset; /* bytes from an element to its BHNode */
    uint32_t keyOffset;  /* bytes from an element to its key */
    BHCompareFn compare;
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
    DSReallocHook realloc;
} BHHeap;

/*
 * Creates an empty heap.
 *   heap         Receives the header; null on failure.
 *   realloc      Hook for the header and the array of slots, or null. Kept for the array's growth.
 *   dealloc      Hook for the same, or null.
 *   nodeOffset   Bytes from an element to its BHNode.
 *   keyOffset    Bytes from an element to its key.
 *   compare      Orders the keys.
 *   destroy      Hook for elements the heap gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t BHInit(BHHeap **heap, DSReallocHook realloc, DSDeallocHook dealloc, uint32_t nodeOffset,
               uint32_t keyOffset, BHCompareFn compare, DSDestroyHook destroy);

/* Destroys all elements, frees array and header and sets *heap to null. */
void BHDeinit(BHHeap **heap);

/* Hands every element to the destroy hook, slot by slot; heap and array stay, empty. O(n). */
void BHDestroy(BHHeap *heap);

/* Returns 1 when the heap holds no element, else 0. */
int BHIsEmpty(const BHHeap *heap);

/*
 * Inserts an element; on its way up it stays below those with an equal key. Returns DS_OK; or DS_NOMEM,
 * with the heap unchanged, when the array cannot grow or holds 2^32 - 2 elements. O(log n), apart from
 * the growth.
 */
int32_t BHInsert(BHHeap *heap, void *element);

/* Unlinks a least element. Returns it, or null when there is none. O(log n). */
void *BHRemoveRoot(BHHeap *heap);

/*
 * Puts an element whose key has changed where it belongs. Must be called before any other operation on
 * the heap. O(log n).
 */
void BHChange(BHHeap *heap, void *element);

/* Unlinks an element, which must be in the heap. O(log n). */
void BHRemove(BHHeap *heap, void *element);

/* The same, and hands it to the destroy hook. */
void BHRemoveAndDestroy(BHHeap *heap, void *element);

/*
 * The first element, which is a least one, and the following element; null when there is none. Steps go
 * from slot to slot, which is not in the order of keys. O(1).
 */
void *BHFirst(const BHHeap *heap);
void *BHNext(const BHHeap *heap, const void *element);

/* Calls visit for each element, slot by slot. O(n). */
void BHVisit(const BHHeap *heap, DSVisitFn visit);

/* The same with an argument. Returns the first nonzero result, where the walk ends, or 0. O(n). */
int32_t BHVisitWithArg(const BHHeap *heap, DSVisitArgFn visit, void *argument);

/* Prints the number of elements and the capacity. */
void BHInfo(const BHHeap *heap);

/*
 * Prints the heap level by level: of each key the first four bytes, as a hexadecimal number. Flushes
 * standard output. O(n).
 */
void BHDump(const BHHeap *heap);

/* Tests the structure and prints the first fault. Returns DS_OK or DS_FAILURE. O(n). */
int32_t BHCheck(const BHHeap *heap);

K42MC_END_DECLS

#endif
