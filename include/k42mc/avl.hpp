// avl_tree<T, &T::node, &T::key>: the typed front end of the AVL tree. A fourth argument orders keys by
// something other than <=>: Compare{}(key, key) gives a result like that.
//   Requires    Compare is a weak order; it finds no two keys in the tree equal, which insert() sees to.
//   Complexity  O(log n) for insertion, search, removal, first(), last(), prev() and next_by_key();
//               next() is O(log n) at most, O(1) on average, and compares nothing.
//   Validity    Walks go on in order, whatever is inserted and removed elsewhere.
#ifndef K42MC_AVL_HPP
#define K42MC_AVL_HPP

#include <k42mc/algorithms/avl_walks.hpp>
#include <k42mc/front_end.hpp>

#include <compare>

namespace k42mc {

template <class T, AVLNode T::*Node, auto Key, class Compare = std::compare_three_way> class avl_view {
    using node = member<Node>;
    using key = member<Key>;

public:
    using value_type = T;
    using key_type = typename key::value_type;
    using record_type = AVLTree;
    using hooks_type = ds_hooks;

    explicit avl_view(AVLTree *tree) : container(tree) {}
    AVLTree *record() const { return container; }

    static int32_t create(AVLTree **tree, const ds_hooks &hooks) {
        return AVLInit(tree, hooks.alloc, hooks.dealloc, node::offset(), key::offset(),
                       compare_hook<key_type, Compare>, hooks.destroy);
    }
    static void destroy(AVLTree **tree) { AVLDeinit(tree); }

    bool empty() const { return !container->root; }
    T *any() const { return node::element(container->root); }

    // Returns null, or the element in the tree that has this key already.
    T *insert(T &element) {
        return node::element(
            avl::insert(container->root, node::of(element), order_of(*key::of(element))));
    }

    T *search(const key_type &sought) const {
        return node::element(avl::search(container->root, order_of(sought)));
    }

    void remove(T &element) {
        avl::remove(container->root, node::of(element), order_of(*key::of(element)));
    }

    // What they return is no longer in the tree; null where there was nothing to remove.
    T *remove_key(const key_type &sought) {
        return node::element(avl::remove_key(container->root, order_of(sought)));
    }
    T *remove_first() { return node::element(avl::remove_first(container->root)); }

    T *first() const { return node::element(avl::leftmost(container->root)); }
    T *last() const { return node::element(avl::rightmost(container->root)); }
    T *next(const T &element) const { return node::element(avl::next(node::of(element))); }
    T *prev(const T &element) const {
        return node::element(avl::prev(container->root, node::of(element), order_of(*key::of(element))));
    }

    // The least element after a key.
    T *next_by_key(const key_type &sought) const {
        return node::element(avl::next_by_key(container->root, order_of(sought)));
    }

    // The order is one of avl's. Ends with the first result of f(T &) that is not 0, and returns it.
    template <class Visit> int32_t visit(uint32_t order, Visit f) const {
        return avl::visit(container->root, order,
                          [&](const AVLNode *at) -> int32_t { return f(node::around(*at)); });
    }

    // Hands every element to the destroy hook.
    void clear() { AVLDestroy(container); }

    k42mc::iterator<avl_view> begin() const { return {*this, first()}; }
    k42mc::iterator<avl_view> end() const { return {*this, nullptr}; }

protected:
    AVLTree *container;

private:
    static auto order_of(const key_type &sought) {
        return [&sought](const AVLNode *at) { return Compare{}(sought, *key::of(node::around(*at))); };
    }
};

template <class T, AVLNode T::*Node, auto Key, class Compare = std::compare_three_way>
using avl_tree = owner<avl_view<T, Node, Key, Compare>>;

} // namespace k42mc

#endif
