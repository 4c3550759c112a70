/*
 * AVL: a search tree balanced by height, a set of elements with unique keys in the order of a comparison
 * hook. Every element embeds one node, so nothing is allocated per element. A node without a right child
 * keeps a thread there: its right link leads to the next element in order, so that walks need neither
 * parent links nor a stack. See ds.h for what holds for all families.
 */
#ifndef K42MC_AVL_H
#define K42MC_AVL_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/* A node's state: one of the tilts, and the bit AVL_THREAD. */
#define AVL_BALANCED   1 /* both subtrees have one height */
#define AVL_RIGHT_TILT 2 /* the right subtree is one level taller */
#define AVL_LEFT_TILT  4 /* the left subtree is one level taller */
#define AVL_THREAD     8 /* there is no right child: right is a thread */

typedef struct AVLNode {
    struct AVLNode *left;  /* null without a left child */
    struct AVLNode *right; /* child, or thread to the next node in order (null in the last) */
    uint8_t state;
} AVLNode;

/*
 * Returns below, equal to or above 0 as the first key comes before, is equal to or comes after the
 * second, which is always the key of an element in the tree.
 */
typedef int32_t (*AVLCompareFn)(const void *key, const void *elementKey);

typedef struct AVLTree {
    AVLNode *root;
    uint32_t keyOffset;  /* bytes from an element to its key */
    uint32_t nodeOffset; /* bytes from an element to its AVLNode */
    AVLCompareFn compare;
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
} AVLTree;

/*
 * Creates an empty tree.
 *   tree            Receives the header; null on failure.
 *   alloc, dealloc  Hooks for the header, or null. alloc is not kept.
 *   nodeOffset      Bytes from an element to its AVLNode.
 *   keyOffset       Bytes from an element to its key.
 *   compare         Orders keys.
 *   destroy         Hook for elements the tree gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t AVLInit(AVLTree **tree, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t nodeOffset,
                uint32_t keyOffset, AVLCompareFn compare, DSDestroyHook destroy);

/* Destroys all elements, frees the header and sets *tree to null. */
void AVLDeinit(AVLTree **tree);

/* Hands every element to the destroy hook, children before parents; the tree stays, empty. O(n). */
void AVLDestroy(AVLTree *tree);

/* Returns 1 when the tree holds no element, else 0. */
int AVLIsEmpty(const AVLTree *tree);

/* Returns some element, found in constant time; null when the tree is empty. */
void *AVLAny(const AVLTree *tree);

/*
 * Inserts an element whose key is not in the tree yet.
 *   existing  Receives null when the element was linked; otherwise the element that has its key, and the
 *             tree is unchanged. May be null.
 * O(log n). The key must not change while the element is linked.
 */
void AVLInsert(AVLTree *tree, void *element, void **existing);

/* Returns the element with this key, or null. O(log n). */
void *AVLSearch(const AVLTree *tree, const void *key);

/* Unlinks an element, which must be in the tree. O(log n). */
void AVLRemove(AVLTree *tree, void *element);

/* Unlinks the element with this key. Returns it, or null when there is none. O(log n). */
void *AVLRemoveByKey(AVLTree *tree, const void *key);

/* Unlinks the least element. Returns it, or null when the tree is empty. O(log n), no comparison. */
void *AVLRemoveFirst(AVLTree *tree);

/* Unlinks an element, which must be in the tree, and hands it to the destroy hook. O(log n). */
void AVLRemoveAndDestroy(AVLTree *tree, void *element);

/* Unlinks and destroys the element with this key. Returns DS_OK, or DS_FAILURE when there is none. */
int32_t AVLRemoveAndDestroyByKey(AVLTree *tree, const void *key);

/* The least and the greatest element; null when the tree is empty. O(log n). */
void *AVLFirst(const AVLTree *tree);
void *AVLLast(const AVLTree *tree);

/*
 * The element after and before one in the tree; null at the end. AVLNext costs O(log n) at most and O(1)
 * on average, without a comparison; AVLPrev descends from the root where there is no left child.
 */
void *AVLNext(const AVLTree *tree, const void *element);
void *AVLPrev(const AVLTree *tree, const void *element);

/* The least element with a key after this one, which need not be in the tree; or null. O(log n). */
void *AVLNextByKey(const AVLTree *tree, const void *key);

/*
 * Visits every element.
 *   order  0: ascending. 1: descending. 2: each before its left and then its right subtree. 3: each
 *          after them; the callback may then free the element.
 * AVLVisit calls nothing with another order. AVLVisitWithArg returns the first callback result that is
 * not 0, which ends the walk; else 0; or DS_FAILURE with another order and a tree that is not empty.
 */
void AVLVisit(const AVLTree *tree, uint32_t order, DSVisitFn visit);
int32_t AVLVisitWithArg(const AVLTree *tree, uint32_t order, DSVisitArgFn visit, void *argument);

/* Prints the number of elements, the height, and the depth of an element on average. O(n). */
void AVLInfo(const AVLTree *tree);

/*
 * Prints the tree lying on its side, the root at the left and greater keys above: per element, the first
 * four bytes of its key as an integer, with a full stop on the side of a tilt and a NUL character where
 * there is none.
 */
void AVLDump(const AVLTree *tree);

/* Compares tilts with heights, and prints the first fault, or that there is none. Returns DS_OK, or
 * DS_FAILURE at a fault. O(n). */
int32_t AVLCheck(const AVLTree *tree);

K42MC_END_DECLS

#endif
