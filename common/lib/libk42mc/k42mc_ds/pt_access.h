// Elements, nodes and keys at the offsets that a Patricia tree was created with.
#pragma once

#include "k42mc_ds/conventions.h"

#include <k42mc/algorithms/bits.hpp>

#include <cstddef>

namespace k42mc::internal::ds {

// The bytes of a key, from the key field of an element or from a key argument.
inline const uint8_t *key_bytes(const void *field, uint8_t indirections) {
    for (; indirections; --indirections)
        field = bits::load<const void *>(field);
    return static_cast<const uint8_t *>(field);
}

inline const uint8_t *key_argument(const PTTree *tree, const void *key) {
    return key_bytes(key, tree->keyIndirections);
}

struct OffsetKeys {
    explicit OffsetKeys(const PTTree *tree)
        : fromNode(static_cast<ptrdiff_t>(tree->keyOffset) - static_cast<ptrdiff_t>(tree->nodeOffset)),
          bits(tree->keyBits), indirections(tree->keyIndirections) {}

    const void *field(const PTNode *node) const {
        return reinterpret_cast<const char *>(node) + fromNode;
    }
    const uint8_t *operator()(const PTNode *node) const { return key_bytes(field(node), indirections); }

    ptrdiff_t fromNode;
    int bits;
    uint8_t indirections;
};

inline PTNode *node_of(const PTTree *tree, const void *element) {
    return link_at<PTNode>(element, tree->nodeOffset);
}

inline void *element_of(const PTTree *tree, const PTNode *node) {
    return node ? element_at(node, tree->nodeOffset) : nullptr;
}

} // namespace k42mc::internal::ds
