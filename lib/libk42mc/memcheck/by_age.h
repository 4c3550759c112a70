// Walks over the registry in the order in which blocks were recorded, without an allocation: each chunk's
// records are put in order, then the chunks are merged. With gMCLock held.
#pragma once

#include "memcheck/record_store.h"

namespace k42mc::internal {

// What a walk has chosen so far.
class ChosenRecords {
public:
    // Chooses, of all records, those that select returns true for. It sees them in no order.
    template <class Select> explicit ChosenRecords(Select select) {
        for (uint32_t number = 0; number < gMCChunkCount; ++number) {
            Chunk &chunk = *gMCChunks[number];
            chunk.chosen_count = chunk.chosen_next = 0;
            for (uint32_t i = 0; i < Chunk::room; ++i) {
                if (chunk.records[i].is_listed() && select(chunk.records[i]))
                    chunk.chosen[chunk.chosen_count++] = static_cast<uint16_t>(i);
            }
            if (chunk.chosen_count != 0)
                add(chunk, number);
        }
    }

    // The next one, oldest first, or null.
    const Record *next();

private:
    void add(Chunk &chunk, uint32_t number);

    uint32_t chunks_ = 0; // in the heap
};

} // namespace k42mc::internal
