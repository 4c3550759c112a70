// The algorithms of the Patricia tree, over nodes. Where a node's key lies is a parameter: `Keys` is
// called with a node and returns its key as bits.hpp has it, and knows how many `bits` a key has.
//
// A link leads down when it goes to a larger bit, else up. Two different nodes have equal bits only
// where the all-zero key meets the key 00...01: whoever follows a key takes that link for one that leads
// up, a walk over all nodes for one that leads down.
#ifndef K42MC_ALGORITHMS_PATRICIA_HPP
#define K42MC_ALGORITHMS_PATRICIA_HPP

#include <k42mc/algorithms/bits.hpp>
#include <k42mc/pt.h>

namespace k42mc::patricia {

inline bool is_empty(const PTNode *head) {
    return head->left == head;
}

// What an ordered walk found out holds until an insertion, or the removal of a node that it is about.
inline void clear_cache(PTTree *tree) {
    tree->cursor = tree->head->right = nullptr;
}

inline void forget(PTTree *tree, const PTNode *removed) {
    if (tree->cursor == removed || tree->head->right == removed)
        clear_cache(tree);
}

// The link that the bits of a key select.
template <class Key> PTNode *&toward(PTNode *node, Key key) {
    return bits::bit_at(key, node->bit) ? node->right : node->left;
}

// The one of a node's links that leads to target.
inline PTNode *&link_to(PTNode *node, const PTNode *target) {
    return node->left == target ? node->left : node->right;
}

// Where following a key ends: `end` is the only node that can have it, reached through the first link
// that leads up, from `holder`, whose parent is `parent`.
struct Descent {
    PTNode *parent;
    PTNode *holder;
    PTNode *end;

    template <class Key> void step(Key key) {
        parent = holder;
        holder = end;
        end = toward(end, key);
    }
};

template <class Key> Descent descend(PTNode *head, Key key) {
    Descent descent{head, head, head->left};
    while (descent.end->bit > descent.holder->bit)
        descent.step(key);
    return descent;
}

// As descend; where the key is not in the tree, the end is the head.
template <class Keys, class Key> Descent search(PTNode *head, const Keys &keys, Key key) {
    Descent descent = descend(head, key);
    if (descent.end != head && bits::DSKeyDiffers(key, keys(descent.end), keys.bits))
        descent.end = head;
    return descent;
}

// The node with this key, or null.
template <class Keys, class Key> PTNode *find(PTNode *head, const Keys &keys, Key key) {
    PTNode *end = search(head, keys, key).end;
    return end == head ? nullptr : end;
}

// Where a key leaves the tree: from this bit on it differs from all that is reached through the link
// from parent to below. With the `bits` of a key it differs nowhere: below is the node that has it, or
// the head.
struct Parting {
    PTNode *parent;
    PTNode *below;
    int bit;
};

// One pass: each node on the way is compared over the bits that are not yet known to agree, up to the
// one it tests. Calls passed(node, next) for each node that the key goes past.
template <class Keys, class Key, class Passed>
Parting part(PTNode *head, const Keys &keys, Key key, Passed passed) {
    PTNode *parent = head;
    PTNode *below = head->left;
    int agreed = 0;
    while (below->bit >= agreed) {
        if (below->bit > agreed) {
            const int bit = bits::DSFirstDiffBit(key, keys(below), agreed, below->bit);
            if (bit < below->bit)
                return {parent, below, bit};
        }
        parent = below;
        below = toward(parent, key);
        agreed = parent->bit + 1;
        passed(parent, below);
    }
    return {parent, below,
            agreed < keys.bits ? bits::DSFirstDiffBit(key, keys(below), agreed, keys.bits) : keys.bits};
}

// Links a node and returns null, or returns the node that has its key already.
template <class Keys> PTNode *insert(PTTree *tree, const Keys &keys, PTNode *node) {
    const auto key = keys(node);
    Parting at = part(tree->head, keys, key, [](PTNode *, PTNode *) {});
    if (at.bit == keys.bits) {
        if (at.below != tree->head)
            return at.below;
        at.bit = keys.bits - 1; // the head only keeps the place of the all-zero key
    }
    link_to(at.parent, at.below) = node;
    node->bit = static_cast<int16_t>(at.bit);
    node->left = node->right = at.below;
    toward(node, key) = node;
    clear_cache(tree);
    return nullptr;
}

// The node above the one given, which must be on the key's path.
template <class Key> PTNode *parent_of(PTNode *head, const PTNode *node, Key key) {
    PTNode *parent = head;
    for (PTNode *at = head->left; at != node; at = toward(at, key))
        parent = at;
    return parent;
}

// Unlinks the node at the end of its own key's path, below the given parent. Where it leads up to itself
// it is cut out; else the node that leads up to it takes its place.
inline void unlink(PTNode *parent, const Descent &up) {
    PTNode *node = up.end;
    PTNode *replacement;
    if (node->left == node) {
        replacement = node->right;
    } else if (node->right == node) {
        replacement = node->left;
    } else {
        replacement = up.holder;
        PTNode *other = replacement->left == node ? replacement->right : replacement->left;
        link_to(up.parent, replacement) = other; // no change where it is its own other end
        replacement->bit = node->bit;
        replacement->left = node->left;
        replacement->right = node->right;
    }
    link_to(parent, node) = replacement;
}

// Unlinks a node that is in the tree.
template <class Keys> void remove(PTTree *tree, const Keys &keys, PTNode *node) {
    const auto key = keys(node);
    PTNode *parent = parent_of(tree->head, node, key);
    Descent up{parent, node, toward(node, key)};
    while (up.end != node)
        up.step(key);
    unlink(parent, up);
    forget(tree, node);
}

// Unlinks and returns the node with this key, or returns null.
template <class Keys, class Key> PTNode *remove_key(PTTree *tree, const Keys &keys, Key key) {
    const Descent up = search(tree->head, keys, key);
    if (up.end == tree->head)
        return nullptr;
    unlink(parent_of(tree->head, up.end, key), up);
    forget(tree, up.end);
    return up.end;
}

// Whether a walk over all nodes goes down this link.
inline bool leads_down(const PTNode *from, const PTNode *to) {
    return to != from && to->bit >= from->bit;
}

// Takes the tree apart in post-order, the left side first, and hands over each node, whose memory may go
// away at once. Paths can be longer than the stack of a thread, so the way back is kept in the links:
// the one a walk went down holds the parent, and one that is done with holds its own node.
template <class HandOver> void take_apart(PTNode *head, HandOver hand_over) {
    PTNode *parent = head;
    PTNode *node = head->left;
    const auto go_down = [&](PTNode *&link) {
        PTNode *below = link;
        link = parent;
        parent = node;
        node = below;
    };
    while (node != head) {
        if (leads_down(node, node->left)) {
            go_down(node->left);
            continue;
        }
        node->left = node;
        if (leads_down(node, node->right)) {
            go_down(node->right);
            continue;
        }
        PTNode *done = node;
        node = parent;
        if (node != head) {
            PTNode *&link = node->left != node ? node->left : node->right;
            parent = link;
            link = node;
        }
        hand_over(done);
    }
}

} // namespace k42mc::patricia

#endif
