// The algorithms of the Patricia tree, over nodes. Where a node's key lies is a parameter: `Keys` is
// called with a node and returns its key's bytes, and knows how many `bits` a key has.
//
// A link leads down when it goes to a larger bit, else up. Two different nodes have equal bits only
// where the all-zero key meets the key 00...01: whoever follows a key takes that link for one that leads
// up, a walk over all nodes for one that leads down.
#ifndef K42MC_ALGORITHMS_PATRICIA_HPP
#define K42MC_ALGORITHMS_PATRICIA_HPP

#include <k42mc/algorithms/bits.hpp>
#include <k42mc/pt.h>

namespace k42mc::patricia {

// The link that the bits of a key select.
inline PTNode *&toward(PTNode *node, const uint8_t *key) {
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

    void step(const uint8_t *key) {
        parent = holder;
        holder = end;
        end = toward(end, key);
    }
};

inline Descent descend(PTNode *head, const uint8_t *key) {
    Descent descent{head, head, head->left};
    while (descent.end->bit > descent.holder->bit)
        descent.step(key);
    return descent;
}

// As descend; where the key is not in the tree, the end is the head.
template <class Keys> Descent search(PTNode *head, const Keys &keys, const uint8_t *key) {
    Descent descent = descend(head, key);
    if (descent.end != head && bits::DSKeyDiffers(key, keys(descent.end), keys.bits))
        descent.end = head;
    return descent;
}

// Links a node that tests `bit` into the link from parent to below.
inline void link_between(PTNode *parent, PTNode *below, PTNode *node, int bit, const uint8_t *key) {
    link_to(parent, below) = node;
    node->bit = static_cast<int16_t>(bit);
    node->left = node->right = below;
    toward(node, key) = node;
}

// Links a node and returns null, or returns the node that has its key already. One pass: each node on
// the way is compared over the bits that are not yet known to agree, up to the one it tests.
template <class Keys> PTNode *insert(PTNode *head, const Keys &keys, PTNode *node) {
    const uint8_t *key = keys(node);
    PTNode *parent = head;
    PTNode *below = head->left;
    int agreed = 0;
    while (below->bit >= agreed) {
        if (below->bit > agreed) {
            const int bit = bits::DSFirstDiffBit(key, keys(below), agreed, below->bit);
            if (bit < below->bit) {
                link_between(parent, below, node, bit, key);
                return nullptr;
            }
        }
        parent = below;
        below = toward(parent, key);
        agreed = parent->bit + 1;
    }

    int bit = agreed < keys.bits ? bits::DSFirstDiffBit(key, keys(below), agreed, keys.bits) : keys.bits;
    if (bit == keys.bits) {
        if (below != head)
            return below;
        bit = keys.bits - 1; // the head only keeps the place of the all-zero key
    }
    link_between(parent, below, node, bit, key);
    return nullptr;
}

// The node above the one given, which must be on the key's path.
inline PTNode *parent_of(PTNode *head, const PTNode *node, const uint8_t *key) {
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
inline void remove(PTNode *head, PTNode *node, const uint8_t *key) {
    PTNode *parent = parent_of(head, node, key);
    Descent up{parent, node, toward(node, key)};
    while (up.end != node)
        up.step(key);
    unlink(parent, up);
}

// Unlinks and returns the node with this key, or returns null.
template <class Keys> PTNode *remove_key(PTNode *head, const Keys &keys, const uint8_t *key) {
    const Descent up = search(head, keys, key);
    if (up.end == head)
        return nullptr;
    unlink(parent_of(head, up.end, key), up);
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
