#include "memcheck/by_age.h"

#include <algorithm>

namespace k42mc::internal {
namespace {

// The order of the oldest record that a chunk has yet to give, beside the chunk's number, so that finding
// the oldest of all does not jump through the records.
struct Head {
    uint64_t order;
    uint32_t chunk;
};

// A heap with the oldest first.
constinit Head heads[most_chunks] = {};

bool comes_later(const Head &a, const Head &b) {
    return a.order > b.order;
}

// Puts the first of so many heads where it belongs. It mostly stays: a chunk's neighbours in age lie in it too.
void sift_first(uint32_t count) {
    const Head moved = heads[0];
    uint32_t at = 0;
    for (uint32_t child; (child = 2 * at + 1) < count; at = child) {
        if (child + 1 < count && comes_later(heads[child], heads[child + 1]))
            ++child;
        if (!comes_later(moved, heads[child]))
            break;
        heads[at] = heads[child];
    }
    heads[at] = moved;
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
    heads[chunks_++] = {chunk.first_chosen().order(), number};
    std::push_heap(heads, heads + chunks_, comes_later);
}

const Record *ChosenRecords::next() {
    if (chunks_ == 0)
        return nullptr;
    Chunk &chunk = *gMCChunks[heads[0].chunk];
    const Record &record = chunk.first_chosen();
    if (++chunk.chosen_next < chunk.chosen_count)
        heads[0].order = chunk.first_chosen().order();
    else
        heads[0] = heads[--chunks_];
    sift_first(chunks_);
    return &record;
}

} // namespace k42mc::internal
