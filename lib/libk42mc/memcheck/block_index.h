// From the address of a block to the number of its record: a table of the whole address space, of which
// only what is used takes memory. No search, and no lock to find an entry.
//
// There is an entry for each granule. Guarded blocks are at least a granule apart, so that each has an entry
// of its own; what the process records by itself, and blocks that went away unseen, may share one. Such
// an entry leads to a chain of links, which lie in records of no block.
#pragma once

#include "memcheck/record_store.h"
#include "platform/own_exchange.h"
#include "platform/platform.h"

#include <k42mc/guard.h>

#include <atomic>
#include <bit>

namespace k42mc::internal {

class IndexEntry {
public:
    // One that many addresses share, and that is a chain even when it is empty.
    static IndexEntry elsewhere;

    uint32_t load() const { return value_.load(std::memory_order_acquire); }
    void store(uint32_t value) { value_.store(value, std::memory_order_release); }
    bool replace(uint32_t expected, uint32_t value) {
        return platform::single_threaded()
                   ? platform::exchange_alone(value_, expected, value)
                   : value_.compare_exchange_strong(expected, value, std::memory_order_acq_rel,
                                                    std::memory_order_relaxed);
    }

    static bool is_chain(uint32_t value) { return value & chain; }

    // What it holds when it leads to nothing.
    uint32_t emptied() const { return this == &elsewhere ? chain : 0; }

    // With nobody recording, whatever the entry holds. find returns 0 for none, and so does find_last, for the
    // highest address up to the one given; add, false where memory runs out; remove, whether it was there.
    uint32_t find(uintptr_t address) const;
    uint32_t find_last(uintptr_t address) const;
    bool add(uint32_t number, FreeRecords &free_records);
    bool remove(uint32_t number, FreeRecords &free_records);

private:
    static constexpr uint32_t chain = 1u << 31;

    constexpr IndexEntry() = default;
    constexpr explicit IndexEntry(uint32_t value) : value_(value) {}

    std::atomic<uint32_t> value_ = 0;
};

struct IndexLeaf {
    static constexpr int bits = 16;

    IndexEntry entries[1u << bits];
};

struct IndexNode {
    static constexpr int bits = sizeof(void *) == 8 ? 12 : 10;

    std::atomic<IndexLeaf *> leaves[1u << bits];
};

// Where in the tables the entry of an address is.
struct IndexPlace {
    static constexpr int granule_bits = std::countr_zero(unsigned{K42MC_GUARD_OVERHEAD});
    static constexpr int address_bits = sizeof(void *) == 8 ? 47 : 32; // that user space has
    static constexpr int top_bits = address_bits - granule_bits - IndexLeaf::bits - IndexNode::bits;

    explicit IndexPlace(uintptr_t address)
        : entry(address >> granule_bits & ((1u << IndexLeaf::bits) - 1)),
          leaf(address >> (granule_bits + IndexLeaf::bits) & ((1u << IndexNode::bits) - 1)),
          node(address >> (granule_bits + IndexLeaf::bits) >> IndexNode::bits) {}

    // What a process records by itself may have an address that no block can have.
    bool exists() const { return node < 1u << top_bits; }

    uintptr_t entry, leaf, node;
};

// Null where nothing was ever recorded.
extern constinit std::atomic<IndexNode *> gMCIndex[1u << IndexPlace::top_bits];

// Null where nothing was recorded.
inline IndexEntry *find_entry(uintptr_t address) {
    const IndexPlace place(address);
    if (!place.exists()) [[unlikely]]
        return &IndexEntry::elsewhere;
    IndexNode *node = gMCIndex[place.node].load(std::memory_order_acquire);
    if (node == nullptr) [[unlikely]]
        return nullptr;
    IndexLeaf *leaf = node->leaves[place.leaf].load(std::memory_order_acquire);
    return leaf != nullptr ? &leaf->entries[place.entry] : nullptr;
}

// The number of the record with the highest address up to the one given, among those of addresses that blocks
// can have, down to about the lowest; 0 for none. With nobody recording. Takes long where none is near.
uint32_t find_last_record(uintptr_t address, uintptr_t lowest);

// Null where memory runs out.
IndexEntry *map_entry(uintptr_t address);

inline IndexEntry *make_entry(uintptr_t address) {
    IndexEntry *entry = find_entry(address);
    return entry != nullptr ? entry : map_entry(address);
}

// With nobody recording.
void unmap_index();

} // namespace k42mc::internal
