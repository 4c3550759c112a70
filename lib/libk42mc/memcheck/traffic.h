// How many blocks of each family were recorded, and how many records removed.
#pragma once

#include "linkage/linkage.h"

namespace k42mc::internal {

struct MCCounter {
    unsigned long long count = 0;
    unsigned long long bytes = 0;

    void add(size_t size) {
        ++count;
        bytes += size;
    }
    MCCounter &operator+=(const MCCounter &other) {
        count += other.count;
        bytes += other.bytes;
        return *this;
    }
    MCCounter &operator-=(const MCCounter &other) {
        count -= other.count;
        bytes -= other.bytes;
        return *this;
    }
};

struct Traffic {
    MCCounter allocated[MC_ALLOCATOR_TYPES];
    MCCounter freed[MC_ALLOCATOR_TYPES];

    Traffic &operator+=(const Traffic &other) {
        for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
            allocated[type] += other.allocated[type];
            freed[type] += other.freed[type];
        }
        return *this;
    }

    Traffic since(const Traffic &moment) const {
        Traffic difference = *this;
        for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
            difference.allocated[type] -= moment.allocated[type];
            difference.freed[type] -= moment.freed[type];
        }
        return difference;
    }
};

} // namespace k42mc::internal
