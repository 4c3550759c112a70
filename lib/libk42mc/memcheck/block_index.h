// From the address of a block to the number of its record: a table of the whole address space, of which
// only what is used takes memory. No search, and no lock to find an entry.
//
// There is an entry for each granule. Guarded blocks are at least a granule apart, so that each has an entry
// of its own; what the process records by itself, and blocks that went away unseen, may share one. Such
// an entry leads to a chain of links, which lie in records of no block.
#pragma once

#include "memcheck/record_store.h"

#include <atomic>

namespace k42mc::internal {

class IndexEntry {
public:
    // One that many addresses share, and that is a chain even when it is empty.
    static IndexEntry elsewhere;

    uint32_t load() const { return value_.load(std::memory_order_acquire); }
    void store(uint32_t value) { value_.store(value, std::memory_order_release); }
    bool replace(uint32_t expected, uint32_t value) {
        return value_.compare_exchange_strong(expected, value, std::memory_order_acq_rel,
                                              std::memory_order_relaxed);
    }

    static bool is_chain(uint32_t value) { return value & chain; }

    // What it holds when it leads to nothing.
    uint32_t emptied() const { return this == &elsewhere ? chain : 0; }

    // With nobody recording, whatever the entry holds. find returns 0 for none; add, false where memory
    // runs out; remove, whether it was there.
    uint32_t find(uintptr_t address) const;
    bool add(uint32_t number, FreeRecords &free_records);
    bool remove(uint32_t number, FreeRecords &free_records);

private:
    static constexpr uint32_t chain = 1u << 31;

    constexpr IndexEntry() = default;
    constexpr explicit IndexEntry(uint32_t value) : value_(value) {}

    std::atomic<uint32_t> value_ = 0;
};

// Null where nothing was recorded.
IndexEntry *find_entry(uintptr_t address);

// Null where memory runs out.
IndexEntry *make_entry(uintptr_t address);

// With nobody recording.
void unmap_index();

} // namespace k42mc::internal
