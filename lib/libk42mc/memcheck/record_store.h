// Where records lie: in memory mapped for them alone, out of the reach of whoever overruns a block.
#pragma once

#include "memcheck/record.h"

#include <utility>

namespace k42mc::internal {

// Records are mapped in chunks, which stay until the registry is released.
struct Chunk {
    static constexpr uint32_t room = 4096;

    Record records[room];

    // Those that a walk by age has chosen, oldest first, and how far it has come.
    uint16_t chosen[room];
    uint32_t chosen_count, chosen_next;

    const Record &first_chosen() const { return records[chosen[chosen_next]]; }
};

inline constexpr uint32_t most_chunks = sizeof(void *) == 8 ? 1u << 17 : 1u << 14;
extern constinit Chunk *gMCChunks[most_chunks];
extern constinit uint32_t gMCChunkCount;

inline Record &record_at(uint32_t number) {
    return gMCChunks[number / Chunk::room]->records[number % Chunk::room];
}

inline size_t most_records() {
    return size_t{gMCChunkCount} * Chunk::room;
}

// The free records of one thread, which takes and gives them back without a lock. What it has too many of,
// others get.
class FreeRecords {
public:
    // Returns the number of a record, or 0 when memory runs out.
    uint32_t take() {
        if (first_ == 0) [[unlikely]]
            return take_fresh();
        --count_;
        const uint32_t number = first_;
        first_ = record_at(number).site;
        return number;
    }

    void give_back(uint32_t number) {
        Record &record = record_at(number);
        record.end();
        record.site = std::exchange(first_, number);
        if (++count_ >= 2 * batch) [[unlikely]]
            give_batch();
    }

    // Their memory is gone.
    void forget() { *this = {}; }

private:
    static constexpr uint32_t batch = 128;

    uint32_t take_fresh();
    void give_batch();

    uint32_t first_ = 0, count_ = 0;
    uint32_t fresh_ = 0, fresh_end_ = 0; // never used
};

// Both with nobody recording. The first returns false when memory runs out.
bool map_first_chunk();
void unmap_chunks();

// Calls action with the number of each record that is used, and with the record.
template <class Action> void for_each_numbered_record(Action action) {
    for (uint32_t chunk = 0; chunk < gMCChunkCount; ++chunk) {
        for (uint32_t i = 0; i < Chunk::room; ++i) {
            Record &record = gMCChunks[chunk]->records[i];
            if (record.is_used())
                action(chunk * Chunk::room + i, record);
        }
    }
}

template <class Action> void for_each_record(Action action) {
    for_each_numbered_record([&](uint32_t, Record &record) { action(record); });
}

} // namespace k42mc::internal
