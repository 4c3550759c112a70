// The algorithms of the lists, most of which the singly and the doubly-linked list share. They work on
// links; elements are their callers' business.
#ifndef K42MC_ALGORITHMS_LISTS_HPP
#define K42MC_ALGORITHMS_LISTS_HPP

#include <k42mc/dl.h>
#include <k42mc/sl.h>

#include <type_traits>

namespace k42mc::lists {

template <class List> using LinkOf = std::remove_pointer_t<decltype(List::head)>;

inline void set_prev(SLLink *, SLLink *) {}
inline void set_prev(DLLink *link, DLLink *prev) {
    link->prev = prev;
}

template <class List> void set_empty(List *list) {
    list->head = list->tail = nullptr;
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

inline SLLink *remove_after(SLList *list, SLLink *link) {
    SLLink *removed = link->next;
    if (!removed)
        return nullptr;
    link->next = removed->next;
    if (!link->next)
        list->tail = link;
    return removed;
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

// What takes links backward.

inline void insert_before(DLList *list, DLLink *existing, DLLink *link) {
    if (existing->prev)
        existing->prev->next = link;
    else
        list->head = link;
    link->next = existing;
    link->prev = existing->prev;
    existing->prev = link;
}

inline DLLink *remove_last(DLList *list) {
    DLLink *last = list->tail;
    if (!last)
        return nullptr;
    list->tail = last->prev;
    if (list->tail)
        list->tail->next = nullptr;
    else
        list->head = nullptr;
    return last;
}

inline void remove(DLList *list, DLLink *link) {
    if (link->next)
        link->next->prev = link->prev;
    else
        list->tail = link->prev;
    if (link->prev)
        link->prev->next = link->next;
    else
        list->head = link->next;
}

} // namespace k42mc::lists

#endif
