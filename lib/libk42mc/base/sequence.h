#pragma once

#include "linkage/linkage.h"

#include <stdlib.h>

namespace k42mc::internal {

// A sequence in memory from the system allocator; its records are plain.
template <typename Record> struct Sequence {
    Record *records = nullptr;
    size_t size = 0;
    size_t room = 0;

    // Null when memory runs out.
    Record *add() {
        if (size == room) {
            const size_t wanted = room != 0 ? 2 * room : 16;
            void *grown = realloc(static_cast<void *>(records), wanted * sizeof(Record));
            if (grown == nullptr)
                return nullptr;
            records = static_cast<Record *>(grown);
            room = wanted;
        }
        return &records[size++];
    }
};

} // namespace k42mc::internal
