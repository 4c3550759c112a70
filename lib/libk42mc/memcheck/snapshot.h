// The registry summed up by allocation site, to be looked at once its lock is released.
#pragma once

#include "base/sequence.h"
#include "memcheck/outer_frames.h"
#include "memcheck/reach/lost_blocks.h"
#include "memcheck/registry.h"

#include <span>

namespace k42mc::internal {

// What is told of a site, once the registry may have forgotten it.
struct SiteKey {
    const char *file;
    int32_t line;
    uint16_t type;
    uint8_t frame_count;
    uint32_t outer;
    void *frames[AllocationSite::most_frames];

    std::span<void *const> trace() const { return {frames, frame_count}; }
    std::span<void *const> outer_trace() const {
        return outer != 0 ? outer_frames_at(outer).trace() : std::span<void *const>{};
    }
    // It has as many frames as were asked for: there may be more.
    bool is_cut() const {
        return outer != 0 ? outer_frames_at(outer).is_cut : frame_count == AllocationSite::most_frames;
    }
};

struct SiteSummary {
    SiteKey key;
    MCCounter held;
    uint32_t oldest;
    size_t largest;
    MCCounter allocated, temporary;  // since the counters were last reset
    MCCounter lost, indirectly_lost; // of those that are held, where a search was made
    const HeldSite *holders;         // of the search's; null for most sites
    size_t first_link;               // of its sample, in the snapshot
};

// A block on the way from a root.
struct HeldLink {
    SiteKey key; // without a file: it has been released since
    size_t size;
    uintptr_t offset; // of the pointer in it to the next
};

struct DamagedBlock {
    SiteKey key;
    int defect;
    uintptr_t address;
    size_t size;
    uint32_t age;
};

class Snapshot {
public:
    Snapshot() = default;
    ~Snapshot() { release(); }
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;

    // Takes in every block, the sites of those that have survived `limit` cycles, with what a search, if there was one, has
    // found of them, which has to stay, and the busiest of the sites that hold no such block. With gMCLock held. Returns
    // false when memory runs out.
    bool take(uint32_t limit, const LostBlocks *lost);
    void release();

    // Most bytes first, then most allocations.
    std::span<const SiteSummary> sites() const { return {sites_.records, sites_.size}; }
    std::span<const HeldLink> links(const SiteSummary &site) const {
        return {links_.records + site.first_link, site.holders->link_count};
    }
    std::span<const DamagedBlock> damaged() const { return {damaged_.records, damaged_.size}; }

    uint32_t cycle = 0;
    MCCounter live{};
    MCCounter allocated{};
    MCCounter freed{};
    MCCounter unlisted_allocated{}, unlisted_temporary{}; // of sites that are not there

private:
    bool take_block(const Record &record);
    SiteSummary *summary_of(AllocationSite &site);
    bool take_counts();
    bool take_search(const LostBlocks &lost);
    bool take_holders(const HeldSite &holders);
    bool take_damage();
    bool grow_slots();
    void release_slots();

    Sequence<SiteSummary> sites_;
    Sequence<HeldLink> links_;
    Sequence<DamagedBlock> damaged_;
    uint32_t *slots_ = nullptr; // open addressing: the number of a site, from 1
    size_t slot_count_ = 0;     // a power of two
};

} // namespace k42mc::internal
