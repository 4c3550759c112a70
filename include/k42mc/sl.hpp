// sl_list<T, &T::link>: the typed front end of the singly-linked list.
//   Requires    Lists are joined with others than themselves, of the same members.
//   Complexity  O(1), but for reverse() and clear(): O(n).
//   Validity    Joining leaves the source empty; its elements, and iterators at them, are then good for
//               the list that took them. Iterators go forward only.
#ifndef K42MC_SL_HPP
#define K42MC_SL_HPP

#include <k42mc/algorithms/lists.hpp>
#include <k42mc/front_end.hpp>

namespace k42mc {

template <class T, SLLink T::*Link> class sl_view {
    using link = member<Link>;

public:
    using value_type = T;
    using record_type = SLList;
    using hooks_type = ds_hooks;

    explicit sl_view(SLList *list) : container(list) {}
    SLList *record() const { return container; }

    static int32_t create(SLList **list, const ds_hooks &hooks) {
        return SLInit(list, hooks.alloc, hooks.dealloc, link::offset(), hooks.destroy);
    }
    static void destroy(SLList **list) { SLDeinit(list); }

    bool empty() const { return !container->head; }
    T *first() const { return link::element(container->head); }
    T *last() const { return link::element(container->tail); }
    T *next(const T &element) const { return link::element(link::of(element)->next); }

    void insert_first(T &element) { lists::insert_first(container, link::of(element)); }
    void insert_last(T &element) { lists::insert_last(container, link::of(element)); }
    void insert_next(T &existing, T &element) {
        lists::insert_after(container, link::of(existing), link::of(element));
    }

    // What they return is no longer in the list; null where there was nothing to remove.
    T *remove_first() { return link::element(lists::remove_first(container)); }
    T *remove_next(T &element) {
        return link::element(lists::remove_after(container, link::of(element)));
    }

    void reverse() { lists::reverse(container); }
    void join_first(sl_view source) { lists::join_first(container, source.container); }
    void join_last(sl_view source) { lists::join_last(container, source.container); }

    // Hands every element to the destroy hook.
    void clear() { SLDestroy(container); }

    k42mc::iterator<sl_view> begin() const { return {*this, first()}; }
    k42mc::iterator<sl_view> end() const { return {*this, nullptr}; }

protected:
    SLList *container;
};

template <class T, SLLink T::*Link> using sl_list = owner<sl_view<T, Link>>;

} // namespace k42mc

#endif
