// The doubly-linked list.
#include "k42mc_ds/lists.h"

using namespace k42mc;
using namespace k42mc::internal;

static_assert(offsetof(DLLink, prev) == sizeof(void *) && sizeof(DLLink) == 2 * sizeof(void *));
static_assert(ds::has_list_layout<DLList>);

int32_t DLInit(DLList **list, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               DSDestroyHook destroy) {
    return ds::create(list, alloc, dealloc, linkOffset, destroy);
}

void DLDeinit(DLList **list) {
    ds::destroy_list(list);
}

void DLDestroy(DLList *list) {
    ds::destroy_elements(list);
}

int DLIsEmpty(const DLList *list) {
    return !list->head;
}

void *DLFirst(const DLList *list) {
    return ds::element_of(list, list->head);
}

void *DLLast(const DLList *list) {
    return ds::element_of(list, list->tail);
}

void *DLNext(const DLList *list, const void *element) {
    return ds::element_of(list, ds::link_of(list, element)->next);
}

void *DLPrev(const DLList *list, const void *element) {
    return ds::element_of(list, ds::link_of(list, element)->prev);
}

void DLInsertFirst(DLList *list, void *element) {
    lists::insert_first(list, ds::link_of(list, element));
}

void DLInsertLast(DLList *list, void *element) {
    lists::insert_last(list, ds::link_of(list, element));
}

void DLInsertNext(DLList *list, void *existing, void *element) {
    lists::insert_after(list, ds::link_of(list, existing), ds::link_of(list, element));
}

void DLInsertPrev(DLList *list, void *existing, void *element) {
    lists::insert_before(list, ds::link_of(list, existing), ds::link_of(list, element));
}

void *DLRemoveFirst(DLList *list) {
    return ds::element_of(list, lists::remove_first(list));
}

void *DLRemoveLast(DLList *list) {
    return ds::element_of(list, lists::remove_last(list));
}

void DLRemove(DLList *list, void *element) {
    lists::remove(list, ds::link_of(list, element));
}

int32_t DLRemoveAndDestroyFirst(DLList *list) {
    return ds::destroy_removed(list->destroy, DLRemoveFirst(list));
}

int32_t DLRemoveAndDestroyLast(DLList *list) {
    return ds::destroy_removed(list->destroy, DLRemoveLast(list));
}

void DLRemoveAndDestroy(DLList *list, void *element) {
    DLRemove(list, element);
    list->destroy(element);
}

void DLReverse(DLList *list) {
    lists::reverse(list);
}

void DLVisit(const DLList *list, int direction, DSVisitFn visit) {
    if (direction == DL_FORWARD)
        ds::visit_elements(list, list->head, &DLLink::next, visit);
    else
        ds::visit_elements(list, list->tail, &DLLink::prev, visit);
}

int32_t DLVisitWithArg(const DLList *list, int direction, DSVisitArgFn visit, void *argument) {
    return direction == DL_FORWARD
               ? ds::visit_elements(list, list->head, &DLLink::next, visit, argument)
               : ds::visit_elements(list, list->tail, &DLLink::prev, visit, argument);
}

void DLJoinFirst(DLList *list, DLList *source) {
    lists::join_first(list, source);
}

void DLJoinLast(DLList *list, DLList *source) {
    lists::join_last(list, source);
}

void DLInfo(const DLList *list) {
    ds::print_info(list, "=========DL Info=======");
}

int32_t DLCheck(const DLList *list) {
    if (!list->head)
        return list->tail ? ds::check_failed(1030, "DL") : DS_OK;
    if (list->head->prev)
        return ds::check_failed(1036, "DL");
    const DLLink *last = list->head;
    for (; last->next; last = last->next)
        if (last->next->prev != last)
            return ds::check_failed(1041, "DL");
    return last == list->tail ? ds::check_passed("DLCheck") : ds::check_failed(1046, "DL");
}

K42MC_EXPORT(DLInit);
K42MC_EXPORT(DLDeinit);
K42MC_EXPORT(DLDestroy);
K42MC_EXPORT(DLIsEmpty);
K42MC_EXPORT(DLFirst);
K42MC_EXPORT(DLLast);
K42MC_EXPORT(DLNext);
K42MC_EXPORT(DLPrev);
K42MC_EXPORT(DLInsertFirst);
K42MC_EXPORT(DLInsertLast);
K42MC_EXPORT(DLInsertNext);
K42MC_EXPORT(DLInsertPrev);
K42MC_EXPORT(DLRemoveFirst);
K42MC_EXPORT(DLRemoveLast);
K42MC_EXPORT(DLRemove);
K42MC_EXPORT(DLRemoveAndDestroyFirst);
K42MC_EXPORT(DLRemoveAndDestroyLast);
K42MC_EXPORT(DLRemoveAndDestroy);
K42MC_EXPORT(DLReverse);
K42MC_EXPORT(DLVisit);
K42MC_EXPORT(DLVisitWithArg);
K42MC_EXPORT(DLJoinFirst);
K42MC_EXPORT(DLJoinLast);
K42MC_EXPORT(DLInfo);
K42MC_EXPORT(DLCheck);
