// What a prefix table finds in its elements at the offsets that it was created with.
#pragma once

#include "k42mc_ds/conventions.h"

#include <k42mc/algorithms/prefix_walks.hpp>

namespace k42mc::internal::ds {

struct PXElements {
    const PXTable *table;

    const uint8_t *key(const void *element) const {
        return link_at<const uint8_t>(element, table->keyOffset);
    }
    int length(const void *element) const {
        return bits::load<int16_t>(link_at<char>(element, table->lengthOffset));
    }
    // The field may be declared as a pointer to whatever type the elements have.
    void *next(const void *element) const {
        return bits::load<void *>(link_at<char>(element, table->chainOffset));
    }
    void set_next(void *element, void *next) const {
        std::memcpy(link_at<char>(element, table->chainOffset), &next, sizeof next);
    }
};

inline void *first_of(const PXNode *node) {
    return node ? node->element : nullptr;
}

} // namespace k42mc::internal::ds
