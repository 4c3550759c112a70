// The algorithms of the AVL tree, over nodes. How a sought key compares with a node's is a parameter:
// `order` is called with a node, once for each level of a descent, and what it returns is below, equal
// to or above 0.
#ifndef K42MC_ALGORITHMS_AVL_HPP
#define K42MC_ALGORITHMS_AVL_HPP

#include <k42mc/avl.h>

namespace k42mc::avl {

// Sides are told by the tilts toward them.
inline constexpr uint8_t left_side = AVL_LEFT_TILT;
inline constexpr uint8_t right_side = AVL_RIGHT_TILT;

inline uint8_t opposite(uint8_t side) {
    return side ^ (left_side | right_side);
}

inline void set_tilt(AVLNode *node, uint8_t tilt) {
    node->state = static_cast<uint8_t>((node->state & AVL_THREAD) | tilt);
}

// A child on the right with nothing on its left is the next node in order, as the target of a thread is:
// the bit alone makes one of the other.

inline bool has_thread(const AVLNode *node) {
    return node->state & AVL_THREAD;
}

inline void make_thread(AVLNode *node) {
    node->state |= AVL_THREAD;
}

inline void make_child(AVLNode *node) {
    node->state &= static_cast<uint8_t>(~AVL_THREAD);
}

inline AVLNode *right_child(const AVLNode *node) {
    return has_thread(node) ? nullptr : node->right;
}

// That many levels take more than 12 thousand million nodes.
inline constexpr unsigned most_levels = 48;

/*
 * Lifts the left child of the node that a link leads to into its place. Where the child has nothing on
 * its right, the thread from there led to the node.
 *
 *          node            child
 *         /    \          /     \
 *     child     c   ->   a      node
 *     /   \                     /  \
 *    a     b                   b    c
 */
inline void rotate_right(AVLNode *&link) {
    AVLNode *node = link, *child = node->left;
    if (has_thread(child)) {
        node->left = nullptr;
        make_child(child);
    } else {
        node->left = child->right;
        child->right = node;
    }
    link = child;
}

/*
 * The mirror image. Where the child has nothing on its left, the node gets a thread to it.
 *
 *      node                   child
 *     /    \                 /     \
 *    a     child    ->     node     c
 *          /   \           /  \
 *         b     c         a    b
 */
inline void rotate_left(AVLNode *&link) {
    AVLNode *node = link, *child = node->right;
    if (child->left)
        node->right = child->left;
    else
        make_thread(node);
    child->left = node;
    link = child;
}

inline void rotate_to(uint8_t side, AVLNode *&link) {
    side == left_side ? rotate_left(link) : rotate_right(link);
}

/*
 * Rebalances the subtree that a link leads to, whose one side is two levels taller than the other.
 * Returns whether it became a level lower than it was with that side.
 *
 * The child on the tall side tilts there, too, or not at all: one rotation lifts it.
 *
 *            node                child               a is h + 1 levels high, c is h. Where b is h as
 *           /    \              /     \              well, the subtree is a level lower now, and node
 *       child     c     ->     a      node           and child are balanced. Where b is h + 1, which
 *       /   \                         /  \           only a removal leads to, it is as high as
 *      a     b                       b    c          before, and the two tilt toward each other.
 *
 * The child tilts to the low side: what is between node and child is lifted above both.
 *
 *            node                 middle             a and d are h levels high, and one of b and c is,
 *           /    \              /        \           or both are; the other is h - 1. The subtree is
 *       child     d   ->    child         node       a level lower now, and middle is balanced. Above
 *       /   \               /   \         /  \       the lower of b and c stands a node that tilts to
 *      a    middle         a     b       c    d      the side where that is not.
 *           /   \
 *          b     c
 */
inline bool rebalance(AVLNode *&link, uint8_t tall) {
    const uint8_t low = opposite(tall);
    AVLNode *node = link;
    AVLNode *&to_child = tall == left_side ? node->left : node->right;
    AVLNode *child = to_child;
    if (child->state & low) {
        rotate_to(tall, to_child);
        rotate_to(low, link);
        AVLNode *middle = link;
        set_tilt(node, middle->state & tall ? low : AVL_BALANCED);
        set_tilt(child, middle->state & low ? tall : AVL_BALANCED);
        set_tilt(middle, AVL_BALANCED);
        return true;
    }
    const bool lower = child->state & tall;
    rotate_to(low, link);
    set_tilt(node, lower ? AVL_BALANCED : tall);
    set_tilt(child, lower ? AVL_BALANCED : low);
    return lower;
}

// A way down from the root, as the links that it takes: nodes have no link to their parent.
class Path {
public:
    explicit Path(AVLNode *&root) { links[0] = &root; }

    // Goes on along a link of the node that the last one leads to. Returns where to.
    AVLNode *take(AVLNode *&link) {
        links[++depth] = &link;
        return link;
    }

    // Goes to the node with the sought key, and returns it, or to where it is missing, and returns null.
    template <class Order> AVLNode *search(Order order) {
        AVLNode *at = last();
        while (at) {
            const auto compared = order(at);
            if (compared == 0)
                break;
            take(compared < 0 ? at->left : at->right);
            at = compared < 0 ? at->left : right_child(at);
        }
        return at;
    }

    // Links a node in the place of a missing one.
    void link(AVLNode *node) {
        if (depth == 0) {
            node->right = nullptr;
        } else if (AVLNode *parent = parent_of_last(); on_left()) {
            node->right = parent;
        } else {
            node->right = parent->right;
            make_child(parent);
        }
        last() = node;
        grown();
    }

    // Unlinks the node that the path leads to: its right child takes its place, or else the node before
    // it in order.
    void unlink() {
        AVLNode *target = last(), *left = target->left;
        if (!left) {
            replace_by_right_child(target);
        } else if (has_thread(left)) {
            replace(target, left, last());
            take(left->left);
        } else {
            replace_by_predecessor(target);
        }
        shrunk();
    }

private:
    AVLNode *&last() const { return *links[depth]; }
    AVLNode *parent_of_last() const { return *links[depth - 1]; }
    bool on_left() const { return links[depth] == &parent_of_last()->left; }

    void replace_by_right_child(const AVLNode *target) {
        if (depth == 0) {
            last() = target->right; // the only node's thread is null
        } else if (on_left()) {
            last() = right_child(target);
        } else {
            last() = target->right;
            if (has_thread(target))
                make_thread(parent_of_last());
        }
    }

    void replace_by_predecessor(AVLNode *target) {
        const unsigned place = depth;
        AVLNode *predecessor = take(target->left);
        while (!has_thread(predecessor))
            predecessor = take(predecessor->right);
        if (predecessor->left)
            last() = predecessor->left;
        else
            make_thread(parent_of_last());
        predecessor->left = target->left;
        links[place + 1] = &predecessor->left;
        replace(target, predecessor, *links[place]);
    }

    // The node's left subtree is its own already.
    static void replace(const AVLNode *target, AVLNode *node, AVLNode *&link) {
        node->right = target->right;
        node->state = target->state;
        link = node;
    }

    // The subtree that the last link leads to has become a level taller.
    void grown() {
        for (; depth; --depth) {
            AVLNode *node = parent_of_last();
            const uint8_t side = on_left() ? left_side : right_side;
            if (node->state & AVL_BALANCED) {
                set_tilt(node, side);
                continue;
            }
            if (node->state & side)
                rebalance(*links[depth - 1], side);
            else
                set_tilt(node, AVL_BALANCED);
            return;
        }
    }

    // It has become a level lower.
    void shrunk() {
        for (; depth; --depth) {
            AVLNode *node = parent_of_last();
            const uint8_t tall = on_left() ? right_side : left_side;
            if (node->state & AVL_BALANCED) {
                set_tilt(node, tall);
                return;
            }
            if (!(node->state & tall))
                set_tilt(node, AVL_BALANCED);
            else if (!rebalance(*links[depth - 1], tall))
                return;
        }
    }

    AVLNode **links[most_levels];
    unsigned depth = 0;
};

// Links a node and returns null, or returns the node that has its key already.
template <class Order> AVLNode *insert(AVLNode *&root, AVLNode *node, Order order) {
    node->left = nullptr;
    node->state = AVL_BALANCED | AVL_THREAD;
    Path path(root);
    AVLNode *present = path.search(order);
    if (!present)
        path.link(node);
    return present;
}

template <class Order> AVLNode *search(AVLNode *root, Order order) {
    AVLNode *at = root;
    while (at) {
        const auto compared = order(at);
        if (compared == 0)
            break;
        at = compared < 0 ? at->left : right_child(at);
    }
    return at;
}

// Unlinks a node that is in the tree.
template <class Order> void remove(AVLNode *&root, const AVLNode *node, Order order) {
    Path path(root);
    for (AVLNode *at = root; at != node;)
        at = path.take(order(at) > 0 ? at->right : at->left);
    path.unlink();
}

// Unlinks and returns the node with the sought key, or returns null.
template <class Order> AVLNode *remove_key(AVLNode *&root, Order order) {
    Path path(root);
    AVLNode *node = path.search(order);
    if (node)
        path.unlink();
    return node;
}

// Unlinks and returns the least node, or returns null.
inline AVLNode *remove_first(AVLNode *&root) {
    AVLNode *least = root;
    if (!least)
        return nullptr;
    Path path(root);
    while (least->left)
        least = path.take(least->left);
    path.unlink();
    return least;
}

} // namespace k42mc::avl

#endif
