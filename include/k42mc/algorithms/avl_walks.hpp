// Steps and visits in an AVL tree, over nodes; avl.hpp says what `order` is.
#ifndef K42MC_ALGORITHMS_AVL_WALKS_HPP
#define K42MC_ALGORITHMS_AVL_WALKS_HPP

#include <k42mc/algorithms/avl.hpp>

namespace k42mc::avl {

// Null for null.
inline AVLNode *leftmost(AVLNode *node) {
    if (node)
        while (node->left)
            node = node->left;
    return node;
}

inline AVLNode *rightmost(AVLNode *node) {
    if (node)
        while (!has_thread(node))
            node = node->right;
    return node;
}

inline AVLNode *next(const AVLNode *node) {
    return has_thread(node) ? node->right : leftmost(node->right);
}

// `order` is that of the node's own key.
template <class Order> AVLNode *prev(AVLNode *root, const AVLNode *node, Order order) {
    if (node->left)
        return rightmost(node->left);
    AVLNode *before = nullptr;
    for (AVLNode *at = root; at != node;) {
        if (order(at) > 0) {
            before = at;
            at = at->right;
        } else {
            at = at->left;
        }
    }
    return before;
}

// The first node after a key, whether or not a node has it.
template <class Order> AVLNode *next_by_key(AVLNode *root, Order order) {
    for (AVLNode *at = root; at;) {
        const auto compared = order(at);
        if (compared == 0)
            return next(at);
        if (compared < 0) {
            if (!at->left)
                return at;
            at = at->left;
        } else {
            if (has_thread(at))
                return at->right;
            at = at->right;
        }
    }
    return nullptr;
}

// Orders of visits.
enum : uint32_t { ascending, descending, pre_order, post_order };

// The next node in pre-order. The last node of a left subtree has a thread to the node above that.
inline AVLNode *next_in_pre_order(const AVLNode *node) {
    if (node->left)
        return node->left;
    while (node && has_thread(node))
        node = node->right;
    return node ? node->right : nullptr;
}

template <class Visit> int32_t visit_descending(AVLNode *node, Visit &visit) {
    for (; node; node = node->left) {
        if (const int32_t result = visit_descending(right_child(node), visit))
            return result;
        if (const int32_t result = visit(node))
            return result;
    }
    return 0;
}

// A node that has been visited may be gone.
template <class Visit> int32_t visit_post_order(AVLNode *node, Visit &visit) {
    if (!node)
        return 0;
    if (const int32_t result = visit_post_order(node->left, visit))
        return result;
    if (const int32_t result = visit_post_order(right_child(node), visit))
        return result;
    return visit(node);
}

// Calls visit with every node, until it returns something other than 0. Returns that, or 0, or
// DS_FAILURE where there is no such order.
template <class Visit> int32_t visit(AVLNode *root, uint32_t order, Visit visit) {
    if (!root)
        return 0;
    const auto visit_along = [&](AVLNode *node, AVLNode *step(const AVLNode *)) {
        int32_t result = 0;
        for (; node && !result; node = step(node))
            result = visit(node);
        return result;
    };
    switch (order) {
    case ascending:
        return visit_along(leftmost(root), next);
    case descending:
        return visit_descending(root, visit);
    case pre_order:
        return visit_along(root, next_in_pre_order);
    case post_order:
        return visit_post_order(root, visit);
    default:
        return DS_FAILURE;
    }
}

} // namespace k42mc::avl

#endif
