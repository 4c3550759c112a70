// The registry summed up by allocation site, to be looked at once its lock is released.
#pragma once

#include "base/sequence.h"
#include "memcheck/state.h"

#include <span>

namespace k42mc::internal {

struct RecordedTrace {
    uint32_t count;
    void *frames[MCAllocRec::most_frames];
};

struct SiteKey {
    const char *file;
    int32_t line;
    uint16_t type;
    RecordedTrace chain;
};

struct SiteSummary {
    SiteKey key;
    MCCounter held;
    uint32_t oldest;
    size_t largest;
};

struct DamagedBlock {
    SiteKey key;
    int defect;
    uintptr_t address;
    size_t size;
    uint32_t cycles;
};

class Snapshot {
public:
    Snapshot() = default;
    ~Snapshot() { release(); }
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;

    // Takes in every block, and the sites of those that have survived `limit` cycles. With gMCLock held.
    // Returns false when memory runs out.
    bool take(uint32_t limit);
    void release();

    // Most bytes first.
    std::span<const SiteSummary> sites() const { return {sites_.records, sites_.size}; }
    std::span<const DamagedBlock> damaged() const { return {damaged_.records, damaged_.size}; }

    uint32_t cycle = 0;
    MCCounter live{};
    MCCounter allocated{};
    MCCounter freed{};

private:
    bool take_block(const MCAllocRec &record);
    bool add_damage(const MCAllocRec &record, int defect);
    bool grow_slots();

    Sequence<SiteSummary> sites_;
    Sequence<DamagedBlock> damaged_;
    uint32_t *slots_ = nullptr; // open addressing: the number of a site, from 1
    size_t slot_count_ = 0;     // a power of two
};

} // namespace k42mc::internal
