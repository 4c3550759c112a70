// dl_list<T, &T::link>: the typed front end of the doubly-linked list.
//   Requires    Lists are joined with others than themselves, of the same members.
//   Complexity  O(1), but for reverse() and clear(): O(n).
//   Validity    Joining leaves the source empty; its elements are then good for the list that took them,
//               and so are iterators at them, but for --, from the end, which asks the source.
#ifndef K42MC_DL_HPP
#define K42MC_DL_HPP

#include <k42mc/algorithms/lists.hpp>
#include <k42mc/front_end.hpp>

namespace k42mc {

template <class T, DLLink T::*Link> class dl_view {
    using link = member<Link>;

public:
    using value_type = T;
    using record_type = DLList;
    using hooks_type = ds_hooks;

    explicit dl_view(DLList *list) : container(list) {}
    DLList *record() const { return container; }

    static int32_t create(DLList **list, const ds_hooks &hooks) {
        return DLInit(list, hooks.alloc, hooks.dealloc, link::offset(), hooks.destroy);
    }
    static void destroy(DLList **list) { DLDeinit(list); }

    bool empty() const { return !container->head; }
    T *first() const { return link::element(container->head); }
    T *last() const { return link::element(container->tail); }
    T *next(const T &element) const { return link::element(link::of(element)->next); }
    T *prev(const T &element) const { return link::element(link::of(element)->prev); }

    void insert_first(T &element) { lists::insert_first(container, link::of(element)); }
    void insert_last(T &element) { lists::insert_last(container, link::of(element)); }
    void insert_next(T &existing, T &element) {
        lists::insert_after(container, link::of(existing), link::of(element));
    }
    void insert_prev(T &existing, T &element) {
        lists::insert_before(container, link::of(existing), link::of(element));
    }

    // What they return is no longer in the list; null where there was nothing to remove.
    T *remove_first() { return link::element(lists::remove_first(container)); }
    T *remove_last() { return link::element(lists::remove_last(container)); }
    void remove(T &element) { lists::remove(container, link::of(element)); }

    void reverse() { lists::reverse(container); }
    void join_first(dl_view source) { lists::join_first(container, source.container); }
    void join_last(dl_view source) { lists::join_last(container, source.container); }

    // Hands every element to the destroy hook.
    void clear() { DLDestroy(container); }

    k42mc::iterator<dl_view> begin() const { return {*this, first()}; }
    k42mc::iterator<dl_view> end() const { return {*this, nullptr}; }

protected:
    DLList *container;
};

template <class T, DLLink T::*Link> using dl_list = owner<dl_view<T, Link>>;

} // namespace k42mc

#endif
