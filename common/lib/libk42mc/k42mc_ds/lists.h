// What the C functions of both lists have in common beside the algorithms: elements at an offset that
// the list knows, creation, walks and the printout.
#pragma once

#include "k42mc_ds/conventions.h"

#include <k42mc/algorithms/lists.hpp>

#include <cstddef>
#include <new>

namespace k42mc::internal::ds {

using lists::LinkOf;

template <class List> LinkOf<List> *link_of(const List *list, const void *element) {
    return link_at<LinkOf<List>>(element, list->linkOffset);
}

template <class List> void *element_of(const List *list, const LinkOf<List> *link) {
    return link ? element_at(link, list->linkOffset) : nullptr;
}

template <class List>
int32_t create(List **handle, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               DSDestroyHook destroy) {
    void *memory = or_default(alloc)(sizeof(List));
    *handle = nullptr;
    if (!memory)
        return DS_NOMEM;
    *handle = new (memory) List{linkOffset, nullptr, nullptr, or_default(destroy), or_default(dealloc)};
    return DS_OK;
}

template <class List> void destroy_elements(List *list) {
    if (owns_elements(list->destroy))
        for (LinkOf<List> *link = list->head, *next; link; link = next) {
            next = link->next;
            list->destroy(element_of(list, link));
        }
    lists::set_empty(list);
}

template <class List> void destroy_list(List **handle) {
    List *list = *handle;
    destroy_elements(list);
    list->dealloc(list);
    *handle = nullptr;
}

// Walks from a link along one of its fields.
template <class List, class Link>
void visit_elements(const List *list, const Link *link, Link *Link::*step, DSVisitFn visit) {
    for (; link; link = link->*step)
        visit(element_of(list, link));
}

template <class List, class Link>
int32_t visit_elements(const List *list, const Link *link, Link *Link::*step, DSVisitArgFn visit,
                       void *argument) {
    for (; link; link = link->*step)
        if (const int32_t result = visit(element_of(list, link), argument))
            return result;
    return 0;
}

template <class List> void print_info(const List *list, const char *banner) {
    uint32_t count = 0;
    for (const LinkOf<List> *link = list->head; link; link = link->next)
        ++count;
    std::puts(banner);
    if (count)
        std::printf("> number of entries: %u\n", count);
    else
        std::puts(">>>>> EMPTY <<<<<");
    std::fflush(stdout);
}

// Processes are built against this layout: five words.
template <class List>
inline constexpr bool has_list_layout = offsetof(List, linkOffset) == 0 &&
                                        offsetof(List, head) == sizeof(void *) &&
                                        offsetof(List, tail) == 2 * sizeof(void *) &&
                                        offsetof(List, destroy) == 3 * sizeof(void *) &&
                                        offsetof(List, dealloc) == 4 * sizeof(void *) &&
                                        sizeof(List) == 5 * sizeof(void *);

} // namespace k42mc::internal::ds
