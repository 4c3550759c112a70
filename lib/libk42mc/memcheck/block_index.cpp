#include "memcheck/block_index.h"

#include "memcheck/records_lock.h"
#include "platform/platform.h"

#include <algorithm>

namespace k42mc::internal {

constinit std::atomic<IndexNode *> gMCIndex[1u << IndexPlace::top_bits] = {};

namespace {

// What a pointer leads to, mapped first where it is null. The memory is zeros, which is what all entries
// are at first.
template <class Table> Table *make(std::atomic<Table *> &pointer) {
    if (Table *table = pointer.load(std::memory_order_acquire))
        return table;
    const RecordsLock lock;
    Table *table = pointer.load(std::memory_order_acquire);
    if (table == nullptr) {
        table = static_cast<Table *>(platform::map_memory(sizeof(Table)));
        pointer.store(table, std::memory_order_release);
    }
    return table;
}

// A link of a chain: a record that leads to another and to the next link.
uint32_t linked(uint32_t link) {
    return record_at(link).site;
}

uint32_t next_of(uint32_t link) {
    return static_cast<uint32_t>(record_at(link).address);
}

void set_next(uint32_t link, uint32_t next) {
    record_at(link).address = next;
}

} // namespace

constinit IndexEntry IndexEntry::elsewhere{chain};

IndexEntry *map_entry(uintptr_t address) {
    const IndexPlace place(address);
    IndexNode *node = make(gMCIndex[place.node]);
    IndexLeaf *leaf = node != nullptr ? make(node->leaves[place.leaf]) : nullptr;
    return leaf != nullptr ? &leaf->entries[place.entry] : nullptr;
}

uint32_t find_last_record(uintptr_t address, uintptr_t lowest) {
    constexpr uintptr_t leaf_granules = uintptr_t{1} << IndexLeaf::bits;
    constexpr uintptr_t node_granules = leaf_granules << IndexNode::bits;
    constexpr uintptr_t granules = uintptr_t{1} << (IndexPlace::address_bits - IndexPlace::granule_bits);
    uintptr_t granule = std::min(address >> IndexPlace::granule_bits, granules - 1);
    for (;; --granule) {
        const IndexPlace place(granule << IndexPlace::granule_bits);
        const IndexNode *node = gMCIndex[place.node].load(std::memory_order_acquire);
        const IndexLeaf *leaf =
            node != nullptr ? node->leaves[place.leaf].load(std::memory_order_acquire) : nullptr;
        if (node == nullptr)
            granule &= -node_granules;
        else if (leaf == nullptr)
            granule &= -leaf_granules;
        else if (const uint32_t number = leaf->entries[place.entry].find_last(address))
            return number;
        if (granule <= lowest >> IndexPlace::granule_bits)
            return 0;
    }
}

void unmap_index() {
    for (auto &pointer : gMCIndex) {
        IndexNode *node = pointer.load(std::memory_order_relaxed);
        if (node == nullptr)
            continue;
        for (auto &leaf_pointer : node->leaves) {
            if (IndexLeaf *leaf = leaf_pointer.exchange(nullptr))
                platform::unmap_memory(leaf, sizeof(IndexLeaf));
        }
    }
    IndexEntry::elsewhere.store(IndexEntry::elsewhere.emptied());
}

uint32_t IndexEntry::find(uintptr_t address) const {
    const uint32_t value = load();
    if (!is_chain(value))
        return value != 0 && record_at(value).address == address ? value : 0;
    for (uint32_t link = value & ~chain; link != 0; link = next_of(link)) {
        const uint32_t number = linked(link);
        if (record_at(number).address == address)
            return number;
    }
    return 0;
}

uint32_t IndexEntry::find_last(uintptr_t address) const {
    const uint32_t value = load();
    uint32_t last = 0;
    const auto consider = [&](uint32_t number) {
        const uintptr_t found = record_at(number).address;
        if (found <= address && (last == 0 || found > record_at(last).address))
            last = number;
    };
    if (!is_chain(value)) {
        if (value != 0)
            consider(value);
        return last;
    }
    for (uint32_t link = value & ~chain; link != 0; link = next_of(link))
        consider(linked(link));
    return last;
}

bool IndexEntry::add(uint32_t number, FreeRecords &free_records) {
    const uint32_t value = load();
    if (value == 0) {
        store(number);
        return true;
    }
    const auto link_to = [&](uint32_t record, uint32_t next) {
        const uint32_t link = free_records.take();
        if (link != 0) {
            record_at(link).site = record;
            set_next(link, next);
            store(link | chain);
        }
        return link;
    };
    // A chain of what was there comes to no harm where memory runs out then.
    const uint32_t rest = is_chain(value) ? value & ~chain : link_to(value, 0);
    return (rest != 0 || is_chain(value)) && link_to(number, rest) != 0;
}

bool IndexEntry::remove(uint32_t number, FreeRecords &free_records) {
    const uint32_t value = load();
    if (!is_chain(value)) {
        if (value == number)
            store(0);
        return value == number;
    }
    uint32_t previous = 0;
    for (uint32_t link = value & ~chain; link != 0; previous = link, link = next_of(link)) {
        if (linked(link) != number)
            continue;
        const uint32_t next = next_of(link);
        if (previous != 0)
            set_next(previous, next);
        else
            store(next != 0 ? next | chain : emptied());
        free_records.give_back(link);
        return true;
    }
    return false;
}

} // namespace k42mc::internal
