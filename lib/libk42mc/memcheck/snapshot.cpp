#include "memcheck/snapshot.h"
#include "linkage/linkage.h"

#include "memcheck/damage.h"

#include <algorithm>
#include <string.h>

namespace k42mc::internal {
namespace {

SiteKey site_key_of(const MCAllocRec &record) {
    SiteKey key{record.key.file, record.key.line, record.key.type, {record.frameCount, {}}};
    memcpy(key.chain.frames, record.frames, record.frameCount * sizeof record.frames[0]);
    return key;
}

// The file's text stays out of it: texts at several addresses may be equal.
size_t hash(const SiteKey &key) {
    uint64_t sum = static_cast<uint32_t>(key.line) ^ uint64_t { key.type } << 32;
    for (uint32_t i = 0; i < key.chain.count; ++i)
        sum = (sum ^ reinterpret_cast<uintptr_t>(key.chain.frames[i])) * 0x9e3779b97f4a7c15u;
    sum *= 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(sum >> 32);
}

int compare(const SiteKey &a, const SiteKey &b) {
    if (a.line != b.line)
        return a.line < b.line ? -1 : 1;
    if (a.type != b.type)
        return a.type < b.type ? -1 : 1;
    if (a.chain.count != b.chain.count)
        return a.chain.count < b.chain.count ? -1 : 1;
    const int chains = memcmp(a.chain.frames, b.chain.frames, a.chain.count * sizeof a.chain.frames[0]);
    return chains != 0 || a.file == b.file ? chains : strcmp(a.file, b.file);
}

bool comes_first(const SiteSummary &a, const SiteSummary &b) {
    if (a.held.bytes != b.held.bytes)
        return a.held.bytes > b.held.bytes;
    const int files = strcmp(a.key.file, b.key.file);
    return files != 0 ? files < 0 : compare(a.key, b.key) < 0;
}

MCCounter sum(const MCCounter *counters) {
    MCCounter total{};
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
        total.count += counters[type].count;
        total.bytes += counters[type].bytes;
    }
    return total;
}

} // namespace

bool Snapshot::take(uint32_t limit) {
    GuardInspector inspector;
    cycle = gMCCycle;
    allocated = sum(gMCAllocSinceReset);
    freed = sum(gMCFreeSinceReset);
    for (const MCAllocRec &record : RecordList(gMCList)) {
        if (record.in_hand)
            continue;
        live.add(record.key.size);
        if (record.cycles >= limit && !take_block(record))
            return false;
        const int defect = inspector.defect(record);
        if (defect != K42MC_DEFECT_NONE && !add_damage(record, defect))
            return false;
    }
    std::sort(sites_.records, sites_.records + sites_.size, comes_first);
    return true;
}

void Snapshot::release() {
    free(sites_.records);
    free(damaged_.records);
    free(slots_);
    sites_ = {};
    damaged_ = {};
    slots_ = nullptr;
    slot_count_ = 0;
}

bool Snapshot::take_block(const MCAllocRec &record) {
    if (2 * sites_.size >= slot_count_ && !grow_slots())
        return false;
    const SiteKey key = site_key_of(record);
    size_t at = hash(key) & (slot_count_ - 1);
    while (slots_[at] != 0 && compare(sites_.records[slots_[at] - 1].key, key) != 0)
        at = (at + 1) & (slot_count_ - 1);
    if (slots_[at] == 0) {
        SiteSummary *created = sites_.add();
        if (created == nullptr)
            return false;
        *created = {key, {}, 0, 0};
        slots_[at] = static_cast<uint32_t>(sites_.size);
    }
    SiteSummary &site = sites_.records[slots_[at] - 1];
    site.held.add(record.key.size);
    site.oldest = std::max(site.oldest, record.cycles);
    site.largest = std::max(site.largest, record.key.size);
    return true;
}

bool Snapshot::add_damage(const MCAllocRec &record, int defect) {
    DamagedBlock *block = damaged_.add();
    if (block == nullptr)
        return false;
    *block = {site_key_of(record), defect, record.address, record.key.size, record.cycles};
    return true;
}

bool Snapshot::grow_slots() {
    const size_t wanted = slot_count_ != 0 ? 2 * slot_count_ : 64;
    auto *slots = static_cast<uint32_t *>(calloc(wanted, sizeof(uint32_t)));
    if (slots == nullptr)
        return false;
    for (size_t i = 0; i < sites_.size; ++i) {
        size_t at = hash(sites_.records[i].key) & (wanted - 1);
        while (slots[at] != 0)
            at = (at + 1) & (wanted - 1);
        slots[at] = static_cast<uint32_t>(i + 1);
    }
    free(slots_);
    slots_ = slots;
    slot_count_ = wanted;
    return true;
}

} // namespace k42mc::internal
