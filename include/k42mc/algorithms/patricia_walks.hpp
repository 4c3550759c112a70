// Ordered access to the Patricia tree, and the walk over all of it. As in patricia.hpp, a link between
// equal bits leads up for whoever follows a key, and down for the walk over all nodes.
//
// A node that is not there is null. The head stands at the place of the all-zero key while that key is
// not in the tree, and behind the node of that key while it is; it has no element.
#ifndef K42MC_ALGORITHMS_PATRICIA_WALKS_HPP
#define K42MC_ALGORITHMS_PATRICIA_WALKS_HPP

#include <k42mc/algorithms/path.hpp>
#include <k42mc/algorithms/patricia.hpp>

namespace k42mc::patricia {

using Side = PTNode *PTNode::*;

struct Link {
    PTNode *holder;
    PTNode *end;
};

// The first link that leads up, from the given one on toward one side.
inline Link outermost(Link link, Side side) {
    while (link.end->bit > link.holder->bit)
        link = {link.end, link.end->*side};
    return link;
}

inline PTNode *least(Link link) {
    return outermost(link, &PTNode::left).end;
}

// Where the greatest place is that of the head, the all-zero key is the only one.
inline PTNode *greatest(PTNode *head, Link link) {
    link = outermost(link, &PTNode::right);
    return link.end == head ? link.holder : link.end;
}

inline PTNode *first(PTNode *head) {
    if (is_empty(head))
        return nullptr;
    const Link link = outermost({head, head->left}, &PTNode::left);
    return link.end == head ? least({link.holder, link.holder->right}) : link.end;
}

inline PTNode *last(PTNode *head) {
    return is_empty(head) ? nullptr : greatest(head, {head, head->left});
}

// The last node where the path of a node's key turns to one side and leaves something on the other: what
// is nearest to the node in order is the outermost of that. Null where there is nothing.
template <class Key> PTNode *last_turn(PTNode *head, PTNode *node, Key key, Side side, Side other) {
    if (node->*side == node && node->*other != head)
        return node;
    PTNode *turn = nullptr;
    for (Link link{head, head->left}; link.end->bit > link.holder->bit;) {
        PTNode *at = link.end;
        link = {at, toward(at, key)};
        if (link.end == at->*side && at->*other != head)
            turn = at;
    }
    return turn;
}

template <class Keys> PTNode *turn_before_next(PTNode *head, const Keys &keys, PTNode *node) {
    return last_turn(head, node, keys(node), &PTNode::left, &PTNode::right);
}

template <class Keys> PTNode *next(PTNode *head, const Keys &keys, PTNode *node) {
    PTNode *turn = turn_before_next(head, keys, node);
    return turn ? least({turn, turn->right}) : nullptr;
}

// The same with the cache: where the next node is found by a descent, the one after it is almost at hand
// and kept for the call that will ask for it.
template <class Keys> PTNode *next_cached(PTTree *tree, const Keys &keys, PTNode *node) {
    if (tree->cursor == node)
        return tree->head->right;
    PTNode *turn = turn_before_next(tree->head, keys, node);
    if (!turn)
        return nullptr;
    const Link link = outermost({turn, turn->right}, &PTNode::left);
    if (link.holder != turn) {
        tree->cursor = link.end;
        tree->head->right = least({link.holder, link.holder->right});
    }
    return link.end;
}

template <class Keys> PTNode *prev(PTNode *head, const Keys &keys, PTNode *node) {
    PTNode *turn = last_turn(head, node, keys(node), &PTNode::right, &PTNode::left);
    return turn ? greatest(head, {turn, turn->left}) : nullptr;
}

// The node with the least key above the given one, which need not be in the tree.
template <class Keys, class Key> PTNode *next_by_key(PTNode *head, const Keys &keys, Key key) {
    PTNode *turn = nullptr;
    const Parting at = part(head, keys, key, [&](PTNode *node, PTNode *next) {
        if (next == node->left && node->right != head)
            turn = node;
    });
    if (at.bit < keys.bits && !bits::bit_at(key, at.bit)) // below all that it parts from
        return least({at.parent, at.below});
    return turn ? least({turn, turn->right}) : nullptr;
}

// Calls visit(node, depth) for every node in ascending (order 0) or descending order, at the link that
// leads up to it; the depth is that of the node that holds the link, the root's 0. Ends at a result
// other than 0 and returns it.
template <class Visit> int32_t walk(PTNode *head, int order, Visit visit) {
    if (is_empty(head))
        return 0;
    const Side one = order ? &PTNode::right : &PTNode::left;
    const Side other = order ? &PTNode::left : &PTNode::right;
    PTNode *node = head->left;
    path<PTNode> above(node, one, other);
    Side side = one;
    for (;;) {
        PTNode *next = node->*side;
        if (leads_down(node, next)) {
            above.push(node, side);
            node = next;
            side = one;
            continue;
        }
        if (next != head)
            if (const int32_t result = visit(next, above.depth()))
                return result;
        while (side == other) {
            node = above.pop(side);
            if (!node)
                return 0;
        }
        side = other;
    }
}

} // namespace k42mc::patricia

#endif
