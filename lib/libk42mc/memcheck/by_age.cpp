#include "memcheck/by_age.h"

#include <algorithm>

namespace k42mc::internal {
namespace {

// Chunks with records to come, as a heap with the oldest first.
constinit uint32_t heap[most_chunks] = {};

bool comes_later(uint32_t a, uint32_t b) {
    return gMCChunks[a]->first_chosen().order() > gMCChunks[b]->first_chosen().order();
}

struct Place {
    uint64_t order;
    uint16_t index;
};

// Side by side, so that sorting does not jump through the records.
constinit Place places[Chunk::room] = {};

void sort(Chunk &chunk) {
    const auto older = [&](uint16_t a, uint16_t b) {
        return chunk.records[a].order() < chunk.records[b].order();
    };
    if (std::is_sorted(chunk.chosen, chunk.chosen + chunk.chosen_count, older))
        return;
    for (uint32_t i = 0; i < chunk.chosen_count; ++i)
        places[i] = {chunk.records[chunk.chosen[i]].order(), chunk.chosen[i]};
    std::sort(places, places + chunk.chosen_count,
              [](const Place &a, const Place &b) { return a.order < b.order; });
    for (uint32_t i = 0; i < chunk.chosen_count; ++i)
        chunk.chosen[i] = places[i].index;
}

} // namespace

void ChosenRecords::add(Chunk &chunk, uint32_t number) {
    sort(chunk);
    heap[chunks_++] = number;
    std::push_heap(heap, heap + chunks_, comes_later);
}

const Record *ChosenRecords::next() {
    if (chunks_ == 0)
        return nullptr;
    std::pop_heap(heap, heap + chunks_, comes_later);
    Chunk &chunk = *gMCChunks[heap[chunks_ - 1]];
    const Record &record = chunk.first_chosen();
    if (++chunk.chosen_next < chunk.chosen_count)
        std::push_heap(heap, heap + chunks_, comes_later);
    else
        --chunks_;
    return &record;
}

} // namespace k42mc::internal
