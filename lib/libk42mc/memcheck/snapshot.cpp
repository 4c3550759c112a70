#include "memcheck/snapshot.h"

#include "memcheck/busiest_sites.h"
#include "memcheck/by_age.h"
#include "memcheck/damage.h"
#include "memcheck/lane.h"
#include "platform/platform.h"

#include <algorithm>
#include <string.h>

namespace k42mc::internal {
namespace {

// Sites that hold nothing: what is told of each is some hundred bytes.
constexpr uint32_t most_others = 500;

SiteKey key_of(const AllocationSite &site) {
    SiteKey key{site.file, site.line, site.type, site.frame_count, site.outer, {}};
    memcpy(key.frames, site.frames, site.trace().size_bytes());
    return key;
}

// The file's text stays out of it: texts at several addresses may be equal.
size_t hash(const SiteKey &key) {
    uint64_t sum =
        static_cast<uint32_t>(key.line) ^ uint64_t { key.outer } << 32 ^ uint64_t { key.type } << 60;
    for (const void *frame : key.trace())
        sum = (sum ^ reinterpret_cast<uintptr_t>(frame)) * 0x9e3779b97f4a7c15u;
    sum *= 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(sum >> 32);
}

int compare(const SiteKey &a, const SiteKey &b) {
    if (a.line != b.line)
        return a.line < b.line ? -1 : 1;
    if (a.type != b.type)
        return a.type < b.type ? -1 : 1;
    if (a.frame_count != b.frame_count)
        return a.frame_count < b.frame_count ? -1 : 1;
    if (a.outer != b.outer)
        return a.outer < b.outer ? -1 : 1;
    const int traces = memcmp(a.frames, b.frames, a.trace().size_bytes());
    return traces != 0 || a.file == b.file ? traces : strcmp(a.file, b.file);
}

bool comes_first(const SiteSummary &a, const SiteSummary &b) {
    if (a.held.bytes != b.held.bytes)
        return a.held.bytes > b.held.bytes;
    if (a.allocated.count != b.allocated.count)
        return a.allocated.count > b.allocated.count;
    const int files = strcmp(a.key.file, b.key.file);
    return files != 0 ? files < 0 : compare(a.key, b.key) < 0;
}

// What was released before any report had seen it.
MCCounter temporary_of(const MCCounter &all, const MCCounter &outlived, const MCCounter &live) {
    MCCounter temporary = all;
    temporary -= outlived;
    temporary -= live;
    return temporary;
}

MCCounter sum(const MCCounter (&counters)[MC_ALLOCATOR_TYPES]) {
    MCCounter total;
    for (const MCCounter &counter : counters)
        total += counter;
    return total;
}

} // namespace

bool Snapshot::take(uint32_t limit, const LostBlocks *lost) {
    const Traffic traffic = total_traffic().since(gMCTrafficAtReset);
    cycle = gMCCycle;
    allocated = sum(traffic.allocated);
    freed = sum(traffic.freed);
    hand_over_tallies();
    begin_snapshot_of_sites();
    bool complete = true;
    for_each_record([&](const Record &record) {
        if (is_counted(record))
            counts_at(record.site).live.add(record.size);
        if (!is_reported(record))
            return;
        live.add(record.size);
        if (complete && record.age(cycle) >= limit)
            complete = take_block(record);
    });
    if (!complete || (lost != nullptr && !take_search(*lost)) || !take_counts() || !take_damage())
        return false;
    std::sort(sites_.records, sites_.records + sites_.size, comes_first);
    return true;
}

void Snapshot::release() {
    sites_.release();
    links_.release();
    damaged_.release();
    release_slots();
}

// Sites of blocks that have survived all have their counts; so have the busiest others.
bool Snapshot::take_counts() {
    BusiestSites busiest;
    for (uint32_t number = 1; number < most_sites(); ++number) {
        if (site_at(number).summary == 0)
            busiest.count(counts_at(number).allocated.value().count);
    }
    busiest.choose(most_others);
    const ForgottenCounts &forgotten = forgotten_counts();
    unlisted_allocated = forgotten.allocated;
    unlisted_temporary = temporary_of(forgotten.allocated, forgotten.outlived, {});
    for (uint32_t number = 1; number < most_sites(); ++number) {
        const SiteCounts &counts = counts_at(number);
        AllocationSite &site = site_at(number);
        const MCCounter all = counts.allocated.value();
        const bool is_listed = site.summary != 0 || busiest.take(all.count);
        SiteSummary *const summary = is_listed ? summary_of(site) : nullptr;
        if (is_listed && summary == nullptr)
            return false;
        (is_listed ? summary->allocated : unlisted_allocated) += all;
        (is_listed ? summary->temporary : unlisted_temporary) +=
            temporary_of(all, counts.outlived.value(), counts.live);
    }
    return true;
}

bool Snapshot::take_search(const LostBlocks &lost) {
    bool complete = true;
    lost.each([&](const Record &record, bool is_indirect) {
        SiteSummary *summary = complete ? summary_of(site_at(record.site)) : nullptr;
        complete = summary != nullptr;
        if (complete)
            (is_indirect ? summary->indirectly_lost : summary->lost).add(record.size);
    });
    return complete && std::ranges::all_of(lost.held_sites(), [this](const HeldSite &holders) {
               return take_holders(holders);
           });
}

// A site is known by the last link of its sample.
bool Snapshot::take_holders(const HeldSite &holders) {
    const std::span<const Link> links = std::span(holders.links).first(holders.link_count);
    if (links.empty() || record_at(links.back().number).order() != links.back().order)
        return true;
    SiteSummary *const summary = summary_of(site_at(record_at(links.back().number).site));
    if (summary == nullptr)
        return false;
    summary->holders = &holders;
    summary->first_link = links_.size;
    for (const Link &link : links) {
        HeldLink *const taken = links_.add();
        if (taken == nullptr)
            return false;
        const Record &record = record_at(link.number);
        if (record.order() == link.order)
            *taken = {key_of(site_at(record.site)), record.size, link.offset};
    }
    return true;
}

bool Snapshot::take_block(const Record &record) {
    SiteSummary *summary = summary_of(site_at(record.site));
    if (summary == nullptr)
        return false;
    summary->held.add(record.size);
    summary->oldest = std::max(summary->oldest, record.age(cycle));
    summary->largest = std::max(summary->largest, record.size);
    return true;
}

// Sites of the registry whose files have the same name are one here.
SiteSummary *Snapshot::summary_of(AllocationSite &site) {
    if (site.summary != 0)
        return &sites_.records[site.summary - 1];
    if (2 * sites_.size >= slot_count_ && !grow_slots())
        return nullptr;
    const SiteKey key = key_of(site);
    size_t at = hash(key) & (slot_count_ - 1);
    while (slots_[at] != 0 && compare(sites_.records[slots_[at] - 1].key, key) != 0)
        at = (at + 1) & (slot_count_ - 1);
    if (slots_[at] == 0) {
        SiteSummary *created = sites_.add();
        if (created == nullptr)
            return nullptr;
        *created = {key, {}, 0, 0, {}, {}, {}, {}, nullptr, 0};
        slots_[at] = static_cast<uint32_t>(sites_.size);
    }
    site.summary = slots_[at];
    return &sites_.records[site.summary - 1];
}

bool Snapshot::take_damage() {
    GuardInspector inspector;
    ChosenRecords records(
        [&](const Record &record) { return inspector.defect(record) != K42MC_DEFECT_NONE; });
    while (const Record *record = records.next()) {
        DamagedBlock *block = damaged_.add();
        if (block == nullptr)
            return false;
        *block = {key_of(site_at(record->site)), inspector.defect(*record), record->address,
                  record->size, record->age(cycle)};
    }
    return true;
}

bool Snapshot::grow_slots() {
    const size_t wanted = slot_count_ != 0 ? 2 * slot_count_ : 1024;
    auto *slots = static_cast<uint32_t *>(platform::map_memory(wanted * sizeof(uint32_t)));
    if (slots == nullptr)
        return false;
    for (size_t i = 0; i < sites_.size; ++i) {
        size_t at = hash(sites_.records[i].key) & (wanted - 1);
        while (slots[at] != 0)
            at = (at + 1) & (wanted - 1);
        slots[at] = static_cast<uint32_t>(i + 1);
    }
    release_slots();
    slots_ = slots;
    slot_count_ = wanted;
    return true;
}

void Snapshot::release_slots() {
    if (slots_ != nullptr)
        platform::unmap_memory(slots_, slot_count_ * sizeof(uint32_t));
    slots_ = nullptr;
    slot_count_ = 0;
}

} // namespace k42mc::internal
