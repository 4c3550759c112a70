// The algorithms of the prefix table, over nodes. What lies in an element is a parameter, `Elements`:
//   key(element)              its key: bytes or a word, as in bits.hpp
//   length(element)           its prefix length in bits
//   next(element)             the element behind it in its chain, or null
//   set_next(element, other)
//
// Nodes hold no bits. So a key is followed down without comparing it, and compared once, at the end: all
// that lies on the way is a prefix of what lies at the end.
#ifndef K42MC_ALGORITHMS_PREFIX_TABLE_HPP
#define K42MC_ALGORITHMS_PREFIX_TABLE_HPP

#include <k42mc/algorithms/bits.hpp>
#include <k42mc/px.h>

#include <new>

namespace k42mc::prefix_table {

// The link that the bits of a key select.
template <class Key> PXNode *&toward(PXNode *node, Key key) {
    return bits::bit_at(key, node->length) ? node->right : node->left;
}

// Some element whose key starts with the node's prefix. Every branch has a left side.
inline void *element_of(const PXNode *node) {
    while (!node->element)
        node = node->left;
    return node->element;
}

// How many of the first `limit` bits agree before a difference.
template <class Key> int agreement(Key a, Key b, int limit) {
    return limit > 0 ? bits::DSFirstDiffBit(a, b, 0, limit) : 0;
}

// ---- Searches ----

// The last two nodes with elements on a key's path, among those of at most `limit` bits.
struct Candidates {
    PXNode *last;
    PXNode *before;
};

template <class Key> Candidates candidates(PXNode *node, Key key, int limit) {
    Candidates found{};
    for (; node && node->length <= limit; node = toward(node, key)) {
        if (node->element)
            found = {node, found.last};
        if (node->length == limit || node->left == node->right)
            break; // nothing below, and the key may end here
    }
    return found;
}

// The node of the longest stored prefix, of at most `limit` bits, that the key starts with; or null.
template <class Elements, class Key>
PXNode *longest(PXNode *root, const Elements &elements, Key key, int limit) {
    const auto [last, before] = candidates(root, key, limit);
    if (!last)
        return nullptr;
    const int agreed = agreement(key, elements.key(last->element), last->length);
    if (agreed == last->length)
        return last;
    return !before || before->length <= agreed ? before : candidates(root, key, agreed).last;
}

// A node and the links that lead to it and to its parent.
struct Place {
    PXNode **link;
    PXNode **above; // null at the root

    PXNode *node() const { return *link; }
    PXNode *parent() const { return above ? *above : nullptr; }
};

// The first node of at least `length` bits on a key's path, or the null link where the path ends.
template <class Key> Place descend(PXNode *&root, Key key, int length) {
    Place place{&root, nullptr};
    while (place.node() && place.node()->length < length)
        place = {&toward(place.node(), key), place.link};
    return place;
}

// Whether a node on the key's path has elements with exactly this prefix.
template <class Elements, class Key>
bool stands_for(const PXNode *node, const Elements &elements, Key key, int length) {
    return node && node->length == length && node->element &&
           agreement(key, elements.key(node->element), length) == length;
}

// The node with elements that stands for exactly this prefix, or null.
template <class Elements, class Key>
PXNode *search(PXNode *root, const Elements &elements, Key key, int length) {
    PXNode *node = descend(root, key, length).node();
    return stands_for(node, elements, key, length) ? node : nullptr;
}

// ---- Insertion ----

inline PXNode *new_node(const PXTable *table, void *element, int length) {
    void *memory = table->alloc(sizeof(PXNode));
    return memory ? new (memory) PXNode{nullptr, nullptr, element, static_cast<int16_t>(length)}
                  : nullptr;
}

// Puts an element, or the chain that it heads, before the elements of a node.
template <class Elements> void join(PXNode *node, const Elements &elements, void *element) {
    if (node->element) {
        void *last = element;
        while (void *next = elements.next(last))
            last = next;
        elements.set_next(last, node->element);
    }
    node->element = element;
}

// Puts a branch above a node, at the bit where the element's key parts from those below.
template <class Elements>
int32_t split(PXTable *table, PXNode *&link, const Elements &elements, void *element, int bit) {
    PXNode *leaf = new_node(table, element, elements.length(element));
    if (!leaf)
        return DS_NOMEM;
    PXNode *branch = new_node(table, nullptr, bit);
    if (!branch) {
        table->dealloc(leaf);
        return DS_NOMEM;
    }
    branch->left = branch->right = link;
    toward(branch, elements.key(element)) = leaf;
    link = branch;
    return DS_OK;
}

// Returns DS_OK, or DS_NOMEM with nothing changed.
template <class Elements> int32_t insert(PXTable *table, const Elements &elements, void *element) {
    const auto key = elements.key(element);
    const int length = elements.length(element);
    const Place place = descend(table->root, key, length);
    PXNode *below = place.node();
    if (const PXNode *nearest = below ? below : place.parent()) {
        const auto stored = elements.key(element_of(nearest));
        const int common = std::min<int>(length, nearest->length);
        const int agreed = agreement(key, stored, common);
        if (agreed < common)
            return split(table, *descend(table->root, key, agreed).link, elements, element, agreed);
    }
    if (below && below->length == length) {
        join(below, elements, element);
        return DS_OK;
    }
    PXNode *node = new_node(table, element, length);
    if (!node)
        return DS_NOMEM;
    if (below)
        toward(node, elements.key(element_of(below))) = below;
    *place.link = node;
    return DS_OK;
}

// ---- Removal ----

// Takes a node's elements away, and the nodes that are of no use without them.
inline void vacate(PXTable *table, const Place &place) {
    PXNode *node = place.node();
    PXNode *parent = place.parent();
    if (node->left && node->right) {
        node->element = nullptr;
        return;
    }
    PXNode *child = node->left ? node->left : node->right;
    if (child || !parent || parent->element) {
        *place.link = child;
    } else {
        *place.above = parent->left == node ? parent->right : parent->left;
        table->dealloc(parent);
    }
    table->dealloc(node);
}

// Takes out one element, which is in the table.
template <class Elements> void remove(PXTable *table, const Elements &elements, void *element) {
    const Place place = descend(table->root, elements.key(element), elements.length(element));
    PXNode *node = place.node();
    void *next = elements.next(element);
    if (node->element != element) {
        void *before = node->element;
        while (elements.next(before) != element)
            before = elements.next(before);
        elements.set_next(before, next);
    } else if (next) {
        node->element = next;
    } else {
        return vacate(table, place);
    }
    elements.set_next(element, nullptr);
}

// Takes a prefix out. Returns the first element of its chain, or null when it is not in the table.
template <class Elements, class Key>
void *remove_key(PXTable *table, const Elements &elements, Key key, int length) {
    const Place place = descend(table->root, key, length);
    if (!stands_for(place.node(), elements, key, length))
        return nullptr;
    void *first = place.node()->element;
    vacate(table, place);
    return first;
}

} // namespace k42mc::prefix_table

#endif
