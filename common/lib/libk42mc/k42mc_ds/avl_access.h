// How the C functions of the AVL tree find nodes, elements and keys: at the offsets that a tree was
// created with.
#pragma once

#include "k42mc_ds/conventions.h"

#include <cstddef>

namespace k42mc::internal::ds {

inline AVLNode *node_of(const AVLTree *tree, const void *element) {
    return link_at<AVLNode>(element, tree->nodeOffset);
}

inline void *element_of(const AVLTree *tree, const AVLNode *node) {
    return node ? element_at(node, tree->nodeOffset) : nullptr;
}

inline const void *key_of(const AVLTree *tree, const void *element) {
    return static_cast<const char *>(element) + tree->keyOffset;
}

// How a key compares with the keys of nodes.
inline auto order_of(const AVLTree *tree, const void *key) {
    const ptrdiff_t toKey =
        static_cast<ptrdiff_t>(tree->keyOffset) - static_cast<ptrdiff_t>(tree->nodeOffset);
    return [key, toKey, compare = tree->compare](const AVLNode *node) {
        return compare(key, reinterpret_cast<const char *>(node) + toKey);
    };
}

} // namespace k42mc::internal::ds
