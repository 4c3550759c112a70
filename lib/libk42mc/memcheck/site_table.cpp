#include "memcheck/site_table.h"

#include "memcheck/busiest_sites.h"
#include "memcheck/records_lock.h"
#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <utility>

namespace k42mc::internal {

constinit SiteChunk *gMCSites[most_site_chunks] = {};
constinit uint32_t site_sweeps = 1; // 0: that of what was never noted

namespace {

// Open addressing. A table that has become too small stays for those who are looking into it; whoever does
// not find a site there looks again with the lock, into the new one.
struct Table {
    Table *former;
    uint32_t mask;
    std::atomic<uint32_t> slots[];

    static size_t size_for(uint32_t slot_count) {
        return sizeof(Table) + slot_count * sizeof(std::atomic<uint32_t>);
    }
};

constexpr uint32_t fewest_slots = 1u << 12;
constexpr uint32_t fewest_to_sweep = 1u << 12;
constexpr uint32_t most_idle_kept = 1u << 12; // that no block needs

constinit std::atomic<Table *> current_table = nullptr;
constinit uint32_t next_site = 1; // number of the first that was never used
constinit uint32_t free_sites = 0, sites_in_table = 0;
constinit std::atomic<uint32_t> sites_until_sweep = fewest_to_sweep;
constinit ForgottenCounts forgotten;

// Odd numbers without a pattern, so that frames that trade places make a difference.
constexpr auto factors = [] {
    std::array<size_t, AllocationSite::most_frames + 3> numbers{};
    uint64_t state = 0;
    for (size_t &number : numbers) {
        state += 0x9e3779b97f4a7c15u;
        uint64_t mixed = (state ^ state >> 30) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111ebu;
        number = static_cast<size_t>(mixed ^ mixed >> 31) | 1;
    }
    return numbers;
}();

// A site that is looked for.
struct WantedSite {
    const char *file;
    int32_t line;
    uint16_t type;
    std::span<void *const> frames;
    uint32_t outer;
    uint32_t hash = hash_of();

    bool is(const AllocationSite &site) const {
        return site.hash == hash && site.file == file && site.line == line && site.type == type &&
               site.frame_count == frames.size() && site.outer == outer && has_frames(site);
    }

private:
    uint32_t hash_of() const {
        size_t sum = reinterpret_cast<uintptr_t>(file) * factors[AllocationSite::most_frames] +
                     static_cast<uint32_t>(line) * factors[AllocationSite::most_frames + 1] +
                     (type | size_t{outer} << 3) * factors[AllocationSite::most_frames + 2];
        for (size_t i = 0; i < frames.size(); ++i)
            sum += reinterpret_cast<uintptr_t>(frames[i]) * factors[i];
        sum ^= sum >> (4 * sizeof sum);
        return static_cast<uint32_t>(sum * 0x9e3779b1u >> (8 * sizeof sum - 32));
    }

    // Few frames: a call of memcmp takes longer.
    bool has_frames(const AllocationSite &site) const {
        uintptr_t difference = 0;
        for (size_t i = 0; i < frames.size(); ++i)
            difference |=
                reinterpret_cast<uintptr_t>(site.frames[i]) ^ reinterpret_cast<uintptr_t>(frames[i]);
        return difference == 0;
    }
};

uint32_t find(const Table &table, const WantedSite &site) {
    for (uint32_t at = site.hash & table.mask;; at = (at + 1) & table.mask) {
        const uint32_t number = table.slots[at].load(std::memory_order_acquire);
        if (number == 0 || site.is(site_at(number)))
            return number;
    }
}

void enter(Table &table, uint32_t number) {
    uint32_t at = site_at(number).hash & table.mask;
    while (table.slots[at].load(std::memory_order_relaxed) != 0)
        at = (at + 1) & table.mask;
    table.slots[at].store(number, std::memory_order_release);
}

Table *map_table(uint32_t slot_count, Table *former) {
    auto *table = static_cast<Table *>(platform::map_memory(Table::size_for(slot_count)));
    if (table != nullptr) {
        table->former = former;
        table->mask = slot_count - 1;
    }
    return table;
}

void unmap_table(Table *table) {
    platform::unmap_memory(table, Table::size_for(table->mask + 1));
}

void unmap_former_tables(Table &table) {
    for (Table *former = std::exchange(table.former, nullptr); former != nullptr;) {
        Table *next = former->former;
        unmap_table(former);
        former = next;
    }
}

bool make_room(Table *&table) {
    const uint32_t slot_count = table->mask + 1;
    if (2 * (sites_in_table + 1) <= slot_count)
        return true;
    Table *larger = map_table(2 * slot_count, table);
    if (larger == nullptr)
        return false;
    for (uint32_t at = 0; at < slot_count; ++at) {
        if (const uint32_t number = table->slots[at].load(std::memory_order_relaxed))
            enter(*larger, number);
    }
    table = larger;
    current_table.store(table, std::memory_order_release);
    return true;
}

uint32_t take_number() {
    if (free_sites != 0)
        return std::exchange(free_sites, site_at(free_sites).hash);
    const uint32_t chunk = next_site / SiteChunk::room;
    if (chunk == most_site_chunks)
        return 0;
    if (gMCSites[chunk] == nullptr)
        gMCSites[chunk] = static_cast<SiteChunk *>(platform::map_memory(sizeof(SiteChunk)));
    return gMCSites[chunk] != nullptr ? next_site++ : 0;
}

[[gnu::noinline]] uint32_t add_site(const WantedSite &site) {
    const RecordsLock lock;
    Table *table = current_table.load(std::memory_order_relaxed);
    if (const uint32_t number = find(*table, site))
        return number;
    const uint32_t number = make_room(table) ? take_number() : 0;
    if (number == 0)
        return 0;
    AllocationSite &added = site_at(number);
    added.file = site.file;
    added.line = site.line;
    added.type = site.type;
    added.frame_count = static_cast<uint8_t>(site.frames.size());
    added.outer = site.outer;
    added.hash = site.hash;
    added.in_use = true;
    added.summary = 0;
    std::copy(site.frames.begin(), site.frames.end(), added.frames);
    enter(*table, number);
    ++sites_in_table;
    const uint32_t left = sites_until_sweep.load(std::memory_order_relaxed);
    sites_until_sweep.store(left - (left != 0), std::memory_order_relaxed);
    return number;
}

template <class Action> void for_each_number(Action action) {
    const Table &table = *current_table.load(std::memory_order_relaxed);
    for (uint32_t at = 0; at <= table.mask; ++at) {
        if (const uint32_t number = table.slots[at].load(std::memory_order_relaxed))
            action(number);
    }
}

// Among those that no block needs.
BusiestSites busiest_idle_sites() {
    BusiestSites busiest;
    for (uint32_t number = 1; number != next_site; ++number) {
        if (!site_at(number).in_use)
            busiest.count(counts_at(number).allocated.value().count);
    }
    busiest.choose(most_idle_kept);
    return busiest;
}

void forget_site(uint32_t number) {
    SiteCounts &counts = counts_at(number);
    forgotten.allocated += counts.allocated.value();
    forgotten.outlived += counts.outlived.value();
    counts.allocated.reset();
    counts.outlived.reset();
    site_at(number).hash = std::exchange(free_sites, number);
}

} // namespace

uint32_t most_sites() {
    const auto behind = std::find(std::begin(gMCSites), std::end(gMCSites), nullptr);
    return static_cast<uint32_t>(behind - gMCSites) * SiteChunk::room;
}

uint32_t number_of_site(const char *file, int32_t line, uint16_t type, std::span<void *const> frames,
                        uint32_t outer) {
    const WantedSite site{file, line, type, frames, outer};
    const uint32_t number = find(*current_table.load(std::memory_order_acquire), site);
    return number != 0 ? number : add_site(site);
}

bool sites_need_sweep() {
    return sites_until_sweep.load(std::memory_order_relaxed) == 0;
}

void begin_site_sweep() {
    ++site_sweeps;
    for_each_number([](uint32_t number) { site_at(number).in_use = false; });
}

// Those that are needed go into the same table, which is emptied first.
void end_site_sweep(uint32_t until_next) {
    Table &table = *current_table.load(std::memory_order_relaxed);
    for (uint32_t at = 0; at <= table.mask; ++at)
        table.slots[at].store(0, std::memory_order_relaxed);
    sites_in_table = free_sites = 0;
    BusiestSites busiest_idle = busiest_idle_sites();
    for (uint32_t number = next_site - 1; number != 0; --number) {
        if (site_at(number).in_use || busiest_idle.take(counts_at(number).allocated.value().count)) {
            enter(table, number);
            ++sites_in_table;
        } else {
            forget_site(number);
        }
    }
    unmap_former_tables(table);
    sites_until_sweep.store(std::max({until_next, sites_in_table, fewest_to_sweep}),
                            std::memory_order_relaxed);
}

bool map_site_table() {
    ++site_sweeps;
    Table *table = map_table(fewest_slots, nullptr);
    current_table.store(table, std::memory_order_release);
    return table != nullptr;
}

void unmap_site_table() {
    if (Table *table = current_table.exchange(nullptr)) {
        unmap_former_tables(*table);
        unmap_table(table);
    }
    for (SiteChunk *&chunk : gMCSites) {
        if (chunk != nullptr)
            platform::unmap_memory(std::exchange(chunk, nullptr), sizeof(SiteChunk));
    }
    next_site = 1;
    free_sites = sites_in_table = 0;
    sites_until_sweep.store(fewest_to_sweep, std::memory_order_relaxed);
}

void begin_snapshot_of_sites() {
    for_each_number([](uint32_t number) {
        site_at(number).summary = 0;
        counts_at(number).live = {};
    });
}

const ForgottenCounts &forgotten_counts() {
    return forgotten;
}

void reset_site_counts() {
    for (uint32_t number = 1; number != next_site; ++number) {
        counts_at(number).allocated.reset();
        counts_at(number).outlived.reset();
    }
    forgotten = {};
}

} // namespace k42mc::internal
