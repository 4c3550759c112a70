/*
 * PT: the Patricia tree, a set of elements with unique keys of a fixed number of bits. Every node tests
 * one bit, and every element is one node, so nothing is allocated per element. See ds.h for what holds
 * for all families.
 *
 * Keys are bit strings: bit 0 is the most significant bit of the first byte in memory, and the order of
 * keys is that of their bytes. Bits past keyBits in the last byte never count. For integers stored in
 * little-endian order this is not the order of their values.
 *
 * An element's key lies keyOffset bytes into it. With n key indirections that place holds a pointer, and
 * n loads in a row lead to the key. A key argument is treated in the same way: it is the address of
 * something laid out like an element's key field; without indirections, of the key itself.
 */
#ifndef K42MC_PT_H
#define K42MC_PT_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/*
 * The node that every element embeds. A link leads down to a node with a larger bit, or up to the node
 * (perhaps itself) whose key a search along this path can match.
 */
typedef struct PTNode {
    int16_t bit;          /* the key bit tested here; -1 in the head */
    struct PTNode *left;  /* followed where that bit is 0 */
    struct PTNode *right; /* followed where that bit is 1 */
} PTNode;

typedef struct PTTree {
    PTNode *head;       /* of a dummy element with an all-zero key; its left link is the root */
    uint32_t keyOffset; /* bytes from an element to its key field */
    int16_t keyBits;
    uint8_t keyIndirections; /* loads from the key field to the key */
    uint32_t nodeOffset;     /* bytes from an element to its PTNode */
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
    PTNode *cursor; /* what an ordered walk returned last; the head's right link is what follows it */
} PTTree;

/*
 * Creates an empty tree.
 *   tree             Receives the header; null on failure.
 *   alloc, dealloc   Hooks for the header and the head's dummy element, or null. alloc is not kept.
 *   nodeOffset       Bytes from an element to its PTNode.
 *   keyOffset        Bytes from an element to its key field, wholly before or wholly after the node.
 *   keyBits          Bits of a key: 1 to 32767.
 *   keyIndirections  Pointer loads from the key field to the key.
 *   destroy          Hook for elements the tree gives up, or null, or DS_DUMMY.
 * Returns DS_OK, DS_NOMEM, or DS_FAILURE when keyBits is below 1.
 */
int32_t PTInit(PTTree **tree, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t nodeOffset,
               uint32_t keyOffset, int16_t keyBits, uint8_t keyIndirections, DSDestroyHook destroy);

/* Destroys all elements, frees dummy element and header and sets *tree to null. */
void PTDeinit(PTTree **tree);

/* Hands every element to the destroy hook; the tree stays, empty. O(n). */
void PTDestroy(PTTree *tree);

/* Returns 1 when the tree holds no element, else 0. */
int PTIsEmpty(const PTTree *tree);

/* Returns some element, found in constant time; null when the tree is empty. */
void *PTAny(const PTTree *tree);

/*
 * Inserts an element whose key is not in the tree yet.
 *   existing  Receives null when the element was linked; otherwise the element that has its key, and the
 *             tree is unchanged. May be null.
 * O(keyBits). The key must not change while the element is linked.
 */
void PTInsert(PTTree *tree, void *element, void **existing);

/* Returns the element with this key, or null. O(keyBits). */
void *PTSearch(const PTTree *tree, const void *key);

/* Unlinks an element, which must be in the tree. O(keyBits). */
void PTRemove(PTTree *tree, void *element);

/* Unlinks the element with this key. Returns it, or null when there is none. O(keyBits). */
void *PTRemoveByKey(PTTree *tree, const void *key);

/* Unlinks an element, which must be in the tree, and hands it to the destroy hook. O(keyBits). */
void PTRemoveAndDestroy(PTTree *tree, void *element);

/* Unlinks and destroys the element with this key. Returns DS_OK, or DS_FAILURE when there is none. */
int32_t PTRemoveAndDestroyByKey(PTTree *tree, const void *key);

/* Return the element with the least, with the greatest key; null when the tree is empty. O(keyBits). */
void *PTFirst(const PTTree *tree);
void *PTLast(const PTTree *tree);

/*
 * Returns the element with the next greater key, or null. The element given must be in the tree. A step
 * that descends also finds the element after its result and keeps both in the tree, so that the next
 * step need not descend. Threads that walk the same tree therefore need a lock. O(keyBits), or O(1) for
 * a step that need not descend.
 */
void *PTNext(PTTree *tree, const void *element);

/*
 * Returns the element with the next smaller key, or null. The element given must be in the tree.
 * O(keyBits).
 */
void *PTPrev(const PTTree *tree, const void *element);

/*
 * Returns the element with the least key above this one, which need not be in the tree. Null when there
 * is none. O(keyBits).
 */
void *PTNextByKey(const PTTree *tree, const void *key);

/* Calls visit for each element, by ascending keys where order is 0, else by descending ones. O(n). */
void PTVisit(const PTTree *tree, int order, DSVisitFn visit);

/* The same with an argument. Returns the first nonzero result, where the walk ends, or 0. O(n). */
int32_t PTVisitWithArg(const PTTree *tree, int order, DSVisitArgFn visit, void *argument);

/* Prints the number of elements, and how many bits a search tests at most and on average. O(n). */
void PTInfo(const PTTree *tree);

/*
 * Prints a line for each element by ascending keys, indented by depth: the first bytes of its key field
 * in hexadecimal and the bit that its node tests. Flushes standard output. O(n).
 */
void PTDump(const PTTree *tree);

K42MC_END_DECLS

#endif
