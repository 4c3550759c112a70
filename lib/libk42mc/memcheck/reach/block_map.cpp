#include "memcheck/reach/block_map.h"

#include <algorithm>

namespace k42mc::internal {
namespace {

bool begins_first(const Block &a, const Block &b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
}

} // namespace

BlockMap::BlockMap(WorkMemory &memory, size_t count)
    : blocks_(memory.take<Block>(count)), buckets_(memory.take<Bucket>(buckets)) {
    size_t filled = 0;
    for_each_numbered_record([&](uint32_t number, const Record &record) {
        if (filled == blocks_.size())
            return;
        blocks_[filled++] = {record.address, record.address + std::max<size_t>(record.size, 1), number,
                             Block::none};
    });
    blocks_ = blocks_.first(filled);
    if (!std::is_sorted(blocks_.begin(), blocks_.end(), begins_first))
        std::sort(blocks_.begin(), blocks_.end(), begins_first);
    find_outer_blocks();
    fill_buckets();
}

// A block that lies in another one begins behind it, so that the last that reaches as far is the innermost.
void BlockMap::find_outer_blocks() {
    uint32_t open = Block::none;
    uintptr_t highest = 0;
    for (uint32_t i = 0; i < size(); ++i) {
        while (open != Block::none && blocks_[open].end <= blocks_[i].begin)
            open = blocks_[open].outer;
        blocks_[i].outer = open;
        open = i;
        highest = std::max(highest, blocks_[i].end);
    }
    if (size() != 0) {
        lowest_ = blocks_.front().begin & ~low_tags;
        extent_ = (highest | low_tags) - lowest_ + 1;
    }
}

void BlockMap::fill_buckets() {
    for (uint32_t i = 0; i < size();) {
        const uintptr_t stretch = blocks_[i].begin >> stretch_bits;
        const uint32_t first = i;
        while (i < size() && blocks_[i].begin >> stretch_bits == stretch)
            ++i;
        buckets_[stretch % buckets] = {stretch, first, i};
    }
}

uint32_t BlockMap::first_from(uintptr_t address) const {
    const auto found =
        std::lower_bound(blocks_.begin(), blocks_.end(), address,
                         [](const Block &block, uintptr_t wanted) { return block.begin < wanted; });
    return static_cast<uint32_t>(found - blocks_.begin());
}

// Low tags may have put it ahead of the block or behind it by a few bytes.
uint32_t BlockMap::find_near(uintptr_t address) const {
    const Bucket &bucket = buckets_[(address >> stretch_bits) % buckets];
    const bool is_known = bucket.stretch == address >> stretch_bits;
    const auto first = blocks_.begin() + (is_known ? bucket.first : 0);
    const auto behind = is_known ? blocks_.begin() + bucket.behind : blocks_.end();
    const auto after =
        std::upper_bound(first, behind, address | low_tags,
                         [](uintptr_t wanted, const Block &block) { return wanted < block.begin; });
    auto index = static_cast<uint32_t>(after - blocks_.begin()) - 1; // none ahead of the first
    while (index != Block::none && blocks_[index].end <= (address & ~low_tags))
        index = blocks_[index].outer;
    return index;
}

} // namespace k42mc::internal
