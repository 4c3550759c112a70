// The singly-linked list.
#include "k42mc_ds/lists.h"

#include <bit>

using namespace k42mc;
using namespace k42mc::internal;

static_assert(sizeof(SLLink) == sizeof(void *));
static_assert(ds::has_list_layout<SLList>);

namespace {

// The last link, or null where links go round in a circle, which comes back to a mark that stays for
// twice as many steps each time.
const SLLink *last_from(const SLLink *link) {
    const SLLink *mark = link;
    for (size_t steps = 1; link->next; ++steps) {
        link = link->next;
        if (link == mark)
            return nullptr;
        if (std::has_single_bit(steps))
            mark = link;
    }
    return link;
}

} // namespace

int32_t SLInit(SLList **list, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               DSDestroyHook destroy) {
    return ds::create(list, alloc, dealloc, linkOffset, destroy);
}

void SLDeinit(SLList **list) {
    ds::destroy_list(list);
}

void SLDestroy(SLList *list) {
    ds::destroy_elements(list);
}

int SLIsEmpty(const SLList *list) {
    return !list->head;
}

void *SLFirst(const SLList *list) {
    return ds::element_of(list, list->head);
}

void *SLLast(const SLList *list) {
    return ds::element_of(list, list->tail);
}

void *SLNext(const SLList *list, const void *element) {
    return ds::element_of(list, ds::link_of(list, element)->next);
}

void SLInsertFirst(SLList *list, void *element) {
    lists::insert_first(list, ds::link_of(list, element));
}

void SLInsertLast(SLList *list, void *element) {
    lists::insert_last(list, ds::link_of(list, element));
}

void SLInsertNext(SLList *list, void *existing, void *element) {
    lists::insert_after(list, ds::link_of(list, existing), ds::link_of(list, element));
}

void *SLRemoveFirst(SLList *list) {
    return ds::element_of(list, lists::remove_first(list));
}

void *SLRemoveNext(SLList *list, void *element) {
    return ds::element_of(list, lists::remove_after(list, ds::link_of(list, element)));
}

int32_t SLRemoveAndDestroyFirst(SLList *list) {
    return ds::destroy_removed(list->destroy, SLRemoveFirst(list));
}

int32_t SLRemoveAndDestroyNext(SLList *list, void *element) {
    return ds::destroy_removed(list->destroy, SLRemoveNext(list, element));
}

void SLReverse(SLList *list) {
    lists::reverse(list);
}

void SLVisit(const SLList *list, DSVisitFn visit) {
    ds::visit_elements(list, list->head, &SLLink::next, visit);
}

int32_t SLVisitWithArg(const SLList *list, DSVisitArgFn visit, void *argument) {
    return ds::visit_elements(list, list->head, &SLLink::next, visit, argument);
}

void SLJoinFirst(SLList *list, SLList *source) {
    lists::join_first(list, source);
}

void SLJoinLast(SLList *list, SLList *source) {
    lists::join_last(list, source);
}

void SLInfo(const SLList *list) {
    ds::print_info(list, "=========SL Info=======");
}

int32_t SLCheck(const SLList *list) {
    if (!list->head)
        return list->tail ? ds::check_failed(645, "SL") : DS_OK;
    const SLLink *const last = last_from(list->head);
    return last && last == list->tail ? ds::check_passed("SLCheck") : ds::check_failed(652, "SL");
}

K42MC_EXPORT(SLInit);
K42MC_EXPORT(SLDeinit);
K42MC_EXPORT(SLDestroy);
K42MC_EXPORT(SLIsEmpty);
K42MC_EXPORT(SLFirst);
K42MC_EXPORT(SLLast);
K42MC_EXPORT(SLNext);
K42MC_EXPORT(SLInsertFirst);
K42MC_EXPORT(SLInsertLast);
K42MC_EXPORT(SLInsertNext);
K42MC_EXPORT(SLRemoveFirst);
K42MC_EXPORT(SLRemoveNext);
K42MC_EXPORT(SLRemoveAndDestroyFirst);
K42MC_EXPORT(SLRemoveAndDestroyNext);
K42MC_EXPORT(SLReverse);
K42MC_EXPORT(SLVisit);
K42MC_EXPORT(SLVisitWithArg);
K42MC_EXPORT(SLJoinFirst);
K42MC_EXPORT(SLJoinLast);
K42MC_EXPORT(SLInfo);
K42MC_EXPORT(SLCheck);
