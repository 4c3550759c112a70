/*
 * DL: the doubly-linked list. As SL, and removes any element in constant time, inserts before an
 * element and walks in both directions. See ds.h for what holds for all families.
 */
#ifndef K42MC_DL_H
#define K42MC_DL_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/* The link that every element embeds. A removed element's link keeps what it last held. */
typedef struct DLLink {
    struct DLLink *next; /* null in the last element */
    struct DLLink *prev; /* null in the first element */
} DLLink;

typedef struct DLList {
    uint32_t linkOffset; /* bytes from an element to its link */
    DLLink *head;        /* null when empty, and so is tail */
    DLLink *tail;
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
} DLList;

/* Directions of a visit; every value but DL_FORWARD is backward. */
#define DL_FORWARD  0
#define DL_BACKWARD 1

/*
 * Creates an empty list.
 *   list             Receives the header; null on failure.
 *   alloc, dealloc   Hooks for the header, or null. alloc is called once and not kept.
 *   linkOffset       Bytes from an element to its DLLink.
 *   destroy          Hook for elements the list gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t DLInit(DLList **list, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               DSDestroyHook destroy);

/* Destroys all elements, frees the header and sets *list to null. */
void DLDeinit(DLList **list);

/* Hands every element to the destroy hook, first to last; the list stays, empty. O(n). */
void DLDestroy(DLList *list);

/* Returns 1 when the list holds no element, else 0. */
int DLIsEmpty(const DLList *list);

/* The first, the last, the following, the preceding element; null when there is none. */
void *DLFirst(const DLList *list);
void *DLLast(const DLList *list);
void *DLNext(const DLList *list, const void *element);
void *DLPrev(const DLList *list, const void *element);

/* Inserts an element at the front, at the end, after or before an existing element. */
void DLInsertFirst(DLList *list, void *element);
void DLInsertLast(DLList *list, void *element);
void DLInsertNext(DLList *list, void *existing, void *element);
void DLInsertPrev(DLList *list, void *existing, void *element);

/* Unlinks the first, the last element. Returns it, or null when the list is empty. */
void *DLRemoveFirst(DLList *list);
void *DLRemoveLast(DLList *list);

/* Unlinks an element, which must be in the list. */
void DLRemove(DLList *list, void *element);

/* The same, and hands it to the destroy hook. Return DS_OK, or DS_FAILURE when the list is empty. */
int32_t DLRemoveAndDestroyFirst(DLList *list);
int32_t DLRemoveAndDestroyLast(DLList *list);

/* Unlinks an element, which must be in the list, and hands it to the destroy hook. */
void DLRemoveAndDestroy(DLList *list, void *element);

/* Reverses the order in place. O(n). */
void DLReverse(DLList *list);

/* Calls visit for each element, in the given direction. O(n). */
void DLVisit(const DLList *list, int direction, DSVisitFn visit);

/* The same with an argument. Returns the first nonzero result, where the walk ends, or 0. O(n). */
int32_t DLVisitWithArg(const DLList *list, int direction, DSVisitArgFn visit, void *argument);

/*
 * Moves all elements of source to the front, to the end of list, keeping their order; source stays,
 * empty. Both lists must have the same link offset.
 */
void DLJoinFirst(DLList *list, DLList *source);
void DLJoinLast(DLList *list, DLList *source);

/* Prints the number of elements. O(n). */
void DLInfo(const DLList *list);

/* Tests the structure and prints the first fault. Returns DS_OK or DS_FAILURE. O(n). */
int32_t DLCheck(const DLList *list);

K42MC_END_DECLS

#endif
