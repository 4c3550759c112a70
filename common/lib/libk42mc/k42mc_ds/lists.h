// What the singly and the doubly-linked list have in common: everything but going backward. Algorithms
// work on links; only the operations that take or return elements know where the link lies.
#pragma once

#include "conventions.h"

#include <cstddef>
#include <new>
#include <type_traits>

namespace k42mc::ds {

template <class List> using LinkOf = std::remove_pointer_t<decltype(List::head)>;

inline void set_prev(SLLink *, SLLink *) {}
inline void set_prev(DLLink *link, DLLink *prev) {
    link->prev = prev;
}

template <class List> LinkOf<List> *link_of(const List *list, const void *element) {
    return link_at<LinkOf<List>>(element, list->linkOffset);
}

template <class List> void *element_of(const List *list, const LinkOf<List> *link) {
    return link ? element_at(link, list->linkOffset) : nullptr;
}

template <class List> void set_empty(List *list) {
    list->head = list->tail = nullptr;
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
    set_empty(list);
}

template <class List> void destroy_list(List **handle) {
    List *list = *handle;
    destroy_elements(list);
    list->dealloc(list);
    *handle = nullptr;
}

template <class List> void insert_first(List *list, LinkOf<List> *link) {
    link->next = list->head;
    if (list->head)
        set_prev(list->head, link);
    else
        list->tail = link;
    set_prev(link, nullptr);
    list->head = link;
}

template <class List> void insert_last(List *list, LinkOf<List> *link) {
    link->next = nullptr;
    set_prev(link, list->tail);
    if (list->tail)
        list->tail->next = link;
    else
        list->head = link;
    list->tail = link;
}

template <class List> void insert_after(List *list, LinkOf<List> *existing, LinkOf<List> *link) {
    if (existing->next)
        set_prev(existing->next, link);
    else
        list->tail = link;
    link->next = existing->next;
    set_prev(link, existing);
    existing->next = link;
}

template <class List> LinkOf<List> *remove_first(List *list) {
    LinkOf<List> *first = list->head;
    if (!first)
        return nullptr;
    list->head = first->next;
    if (list->head)
        set_prev(list->head, nullptr);
    else
        list->tail = nullptr;
    return first;
}

template <class List> void reverse(List *list) {
    LinkOf<List> *prev = nullptr;
    list->tail = list->head;
    for (LinkOf<List> *link = list->head, *next; link; link = next) {
        next = link->next;
        link->next = prev;
        set_prev(link, next);
        prev = link;
    }
    list->head = prev;
}

template <class List> void join_first(List *list, List *source) {
    if (!source->tail)
        return;
    if (list->head) {
        source->tail->next = list->head;
        set_prev(list->head, source->tail);
    } else {
        list->tail = source->tail;
    }
    list->head = source->head;
    set_empty(source);
}

template <class List> void join_last(List *list, List *source) {
    if (!source->head)
        return;
    if (list->tail) {
        list->tail->next = source->head;
        set_prev(source->head, list->tail);
    } else {
        list->head = source->head;
    }
    list->tail = source->tail;
    set_empty(source);
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

} // namespace k42mc::ds
