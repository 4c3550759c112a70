// bh_heap<T, &T::node, &T::key>: the typed front end of the binary heap. A fourth argument orders keys by
// something other than <=>: Compare{}(key, key) gives what compares with 0, an ordering or a number.
//   Requires    Compare is a weak order. A key may change if change() follows ahead of all else.
//   Complexity  insert(), remove(), remove_root() and change() are O(log n), beside the growth of the
//               array, O(1) a step on average; first() and next() are O(1).
//   Validity    All but change() of an element that orders where it did may shift others from slot to
//               slot: an iterator stays at its element, but what lies ahead of it is no longer what a
//               walk has not seen.
#ifndef K42MC_BH_HPP
#define K42MC_BH_HPP

#include <k42mc/algorithms/heap.hpp>
#include <k42mc/front_end.hpp>

#include <compare>

namespace k42mc {

// As ds_hooks, but for memory that can grow.
struct bh_hooks {
    DSReallocHook realloc = nullptr; // null: from the checked allocator
    DSDeallocHook dealloc = nullptr;
    DSDestroyHook destroy = DS_DUMMY; // null: elements are released to the checked allocator
};

template <class T, BHNode T::*Node, auto Key, class Compare = std::compare_three_way> class bh_view {
    using node = member<Node>;
    using key = member<Key>;

    static constexpr auto order = [](const BHNode *a, const BHNode *b) {
        return Compare()(*key::of(node::around(*a)), *key::of(node::around(*b)));
    };

public:
    using value_type = T;
    using record_type = BHHeap;
    using hooks_type = bh_hooks;

    explicit bh_view(BHHeap *heap) : container(heap) {}
    BHHeap *record() const { return container; }

    static int32_t create(BHHeap **heap, const bh_hooks &hooks) {
        return BHInit(heap, hooks.realloc, hooks.dealloc, node::offset(), key::offset(),
                      compare_hook<typename key::value_type, Compare>, hooks.destroy);
    }
    static void destroy(BHHeap **heap) { BHDeinit(heap); }

    bool empty() const { return !container->count; }
    uint32_t size() const { return container->count; }

    // A least element, and from there slot by slot.
    T *first() const { return node::element(heap::first(container)); }
    T *next(const T &element) const { return node::element(heap::next(container, node::of(element))); }

    // Throws std::bad_alloc, and nothing has changed, when the heap cannot grow.
    void insert(T &element) {
        if (heap::insert(container, node::of(element), order) != DS_OK)
            out_of_memory();
    }

    // Returns a least element, which is no longer in the heap; null when there is none.
    T *remove_root() { return node::element(heap::remove_root(container, order)); }
    void remove(T &element) { heap::remove(container, node::of(element), order); }

    // To be called at once when an element's key has changed.
    void change(T &element) { heap::change(container, node::of(element), order); }

    // Hands every element to the destroy hook.
    void clear() { BHDestroy(container); }

    k42mc::iterator<bh_view> begin() const { return {*this, first()}; }
    k42mc::iterator<bh_view> end() const { return {*this, nullptr}; }

    // Calls function for each element, in the same order. Iterators have to ask each element for its
    // slot; this need not.
    template <class Function> void visit(Function function) const {
        BHNode *const *slot = container->slots;
        for (uint32_t n = container->count; n; --n)
            function(node::around(**++slot));
    }

protected:
    BHHeap *container;
};

template <class T, BHNode T::*Node, auto Key, class Compare = std::compare_three_way>
using bh_heap = owner<bh_view<T, Node, Key, Compare>>;

} // namespace k42mc

#endif
