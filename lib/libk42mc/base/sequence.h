#pragma once

#include "platform/platform.h"

#include <string.h>
#include <utility>

namespace k42mc::internal {

// A sequence of plain records in memory mapped for it alone, so that a report can be made wherever the allocator
// cannot be entered.
template <typename Record> class Sequence {
public:
    Sequence() = default;
    ~Sequence() { release(); }
    Sequence(const Sequence &) = delete;
    Sequence &operator=(const Sequence &) = delete;

    // Null when memory runs out.
    Record *add() {
        if ((size + 1) * sizeof(Record) > bytes_ && !grow())
            return nullptr;
        return &records[size++];
    }

    void release() {
        if (records != nullptr)
            platform::unmap_memory(std::exchange(records, nullptr), std::exchange(bytes_, 0));
        size = 0;
    }

    Record *records = nullptr;
    size_t size = 0;

private:
    static constexpr size_t fewest_bytes = 1u << 14;

    bool grow() {
        const size_t wanted = bytes_ != 0 ? 2 * bytes_ : fewest_bytes;
        void *const grown = platform::map_memory(wanted);
        if (grown == nullptr)
            return false;
        if (size != 0)
            memcpy(grown, static_cast<const void *>(records), size * sizeof(Record));
        const size_t kept = size;
        release();
        records = static_cast<Record *>(grown);
        size = kept;
        bytes_ = wanted;
        return true;
    }

    size_t bytes_ = 0;
};

} // namespace k42mc::internal
