/*
 * SL: the singly-linked list. Insertion at both ends and after an element, removal at the front and
 * after an element, joining two lists: all in constant time. See ds.h for what holds for all families.
 */
#ifndef K42MC_SL_H
#define K42MC_SL_H

#include <k42mc/ds.h>

K42MC_BEGIN_DECLS

/* The link that every element embeds. A removed element's link keeps what it last held. */
typedef struct SLLink {
    struct SLLink *next; /* null in the last element */
} SLLink;

typedef struct SLList {
    uint32_t linkOffset; /* bytes from an element to its link */
    SLLink *head;        /* null when empty, and so is tail */
    SLLink *tail;
    DSDestroyHook destroy;
    DSDeallocHook dealloc;
} SLList;

/*
 * Creates an empty list.
 *   list             Receives the header; null on failure.
 *   alloc, dealloc   Hooks for the header, or null. alloc is called once and not kept.
 *   linkOffset       Bytes from an element to its SLLink.
 *   destroy          Hook for elements the list gives up, or null, or DS_DUMMY.
 * Returns DS_OK or DS_NOMEM.
 */
int32_t SLInit(SLList **list, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               DSDestroyHook destroy);

/* Destroys all elements, frees the header and sets *list to null. */
void SLDeinit(SLList **list);

/* Hands every element to the destroy hook, first to last; the list stays, empty. O(n). */
void SLDestroy(SLList *list);

/* Returns 1 when the list holds no element, else 0. */
int SLIsEmpty(const SLList *list);

/* The first, the last, the following element; null when there is none. */
void *SLFirst(const SLList *list);
void *SLLast(const SLList *list);
void *SLNext(const SLList *list, const void *element);

/* Inserts an element at the front, at the end, after an existing element. */
void SLInsertFirst(SLList *list, void *element);
void SLInsertLast(SLList *list, void *element);
void SLInsertNext(SLList *list, void *existing, void *element);

/* Unlinks the first element, the one after element. Returns it, or null when there is none. */
void *SLRemoveFirst(SLList *list);
void *SLRemoveNext(SLList *list, void *element);

/* The same, and hands it to the destroy hook. Returns DS_OK, or DS_FAILURE when there is none. */
int32_t SLRemoveAndDestroyFirst(SLList *list);
int32_t SLRemoveAndDestroyNext(SLList *list, void *element);

/* Reverses the order in place. O(n). */
void SLReverse(SLList *list);

/* Calls visit for each element, first to last. O(n). */
void SLVisit(const SLList *list, DSVisitFn visit);

/* The same with an argument. Returns the first nonzero result, where the walk ends, or 0. O(n). */
int32_t SLVisitWithArg(const SLList *list, DSVisitArgFn visit, void *argument);

/*
 * Moves all elements of source to the front, to the end of list, keeping their order; source stays,
 * empty. Both lists must have the same link offset.
 */
void SLJoinFirst(SLList *list, SLList *source);
void SLJoinLast(SLList *list, SLList *source);

/* Prints the number of elements. O(n). */
void SLInfo(const SLList *list);

/* Tests the structure and prints the first fault. Returns DS_OK or DS_FAILURE. O(n). */
int32_t SLCheck(const SLList *list);

K42MC_END_DECLS

#endif
