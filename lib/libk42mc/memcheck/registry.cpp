#include "memcheck/registry.h"

#include "base/checker_lock.h"
#include "memcheck/block_index.h"
#include "memcheck/filters.h"
#include "memcheck/inheritance.h"
#include "memcheck/lane.h"
#include "memcheck/outer_frames.h"
#include "memcheck/reach/annotations.h"
#include "memcheck/registry_lines.h"
#include "memcheck/state.h"

namespace k42mc::internal {
namespace {

// What is known of a block while the checker is off: its header is taken on trust.
constexpr KnownBlock unexamined{.header_readable = true, .tail = 0};

// The order in which blocks were recorded, whoever did. On a line of its own: all threads count here.
alignas(64) constinit std::atomic<uint64_t> blocks_recorded = 0;

// In that order.
constinit uint64_t first_own_block = 0;
constinit uint64_t first_counted_block = 0; // of its site

constinit bool exists = false;

uint64_t next_in_order() {
    if (!platform::single_threaded())
        return blocks_recorded.fetch_add(1, std::memory_order_relaxed);
    const uint64_t number = blocks_recorded.load(std::memory_order_relaxed);
    blocks_recorded.store(number + 1, std::memory_order_relaxed);
    return number;
}

uintptr_t address_of(const void *user) {
    return reinterpret_cast<uintptr_t>(user);
}

// ---- Removal ----

// What is left to do about a record that nobody finds any more.
struct Removed {
    uint32_t number = 0; // 0: there was none
    bool shared = false; // its entry in the index is shared, so nobody may be recording
};

Removed take_from(IndexEntry &entry, uintptr_t address) {
    for (;;) {
        const uint32_t value = entry.load();
        if (IndexEntry::is_chain(value)) [[unlikely]]
            return {.shared = true};
        if (value == 0)
            return {};
        if (__atomic_load_n(&record_at(value).address, __ATOMIC_RELAXED) != address)
            return {};
        if (entry.replace(value, 0))
            return {.number = value};
    }
}

Removed take(uintptr_t address) {
    IndexEntry *entry = find_entry(address);
    return entry != nullptr ? take_from(*entry, address) : Removed{};
}

uint32_t take_alone(uintptr_t address, Lane &lane) {
    IndexEntry *entry = find_entry(address);
    const uint32_t number = entry != nullptr ? entry->find(address) : 0;
    if (number != 0)
        entry->remove(number, lane.free_records);
    return number;
}

[[gnu::noinline]] void count_aged(const Record &record, Lane &lane) {
    if (is_counted(record))
        lane.tallies.outlived.add(record.site, record.size);
}

[[gnu::always_inline]] inline void end_record(uint32_t number, Lane &lane) {
    const Record &record = record_at(number);
    lane.traffic.freed[record.type()].add(record.size);
    if (gMCCycle != 0 && record.age(gMCCycle) != 0) [[unlikely]]
        count_aged(record, lane);
    lane.free_records.give_back(number);
}

// Takes the record of a block. `then` gets it, while it is still the caller's.
template <class Then> bool take_record_of(uintptr_t address, Then then) {
    {
        const Recording recording;
        if (!recording)
            return false;
        const Removed removed = take(address);
        if (!removed.shared) {
            if (removed.number != 0)
                then(removed.number, recording.lane());
            return true;
        }
    }
    const CheckerLock lock(MCLock() != 0);
    if (!lock)
        return false;
    Lane &lane = lane_of_lock_holder();
    if (const uint32_t number = take_alone(address, lane))
        then(number, lane);
    return true;
}

KnownBlock known_block(const Record &record) {
    return {.header_readable = true, .site = record.site, .tail = record.address + record.size};
}

constexpr KnownBlock unknown_block{.header_readable = false, .tail = 0};

// ---- Addition ----

enum class Outcome { done, no_memory, shared };

// A block that is to be recorded.
struct NewBlock {
    Site site;
    uint16_t type;
    uintptr_t address;
    size_t size;
    StackTrace &trace;
    bool is_kept = false;
};

// Where there is no room for the further ones, the trace has no more than others.
[[gnu::noinline]] uint32_t outer_frames_here(int depth) {
    void *frames[K42MCX_DEEP];
    const int count = platform::backtrace_skip(frames, depth);
    constexpr int kept = AllocationSite::most_frames;
    return count < kept
               ? 0
               : number_of_outer_frames(std::span(frames + kept, frames + count), count == depth);
}

uint32_t site_number(const NewBlock &block, SiteMemo &memo) {
    const char *const file = name_of(block.site);
    const auto number = [&](std::span<void *const> frames, uint32_t outer) {
        return number_of_site(file, block.site.line, block.type, frames, outer);
    };
    if (!wants_backtrace({block.site.line, block.size, block.type, file}))
        return number({}, 0);
    block.trace.capture(StackTrace::deepest);
    const std::span<void *const> frames = block.trace.innermost(AllocationSite::most_frames);
    const int depth = trace_limit.load(std::memory_order_relaxed);
    if (depth > AllocationSite::most_frames && frames.size() == AllocationSite::most_frames) [[unlikely]]
        return number(frames, outer_frames_here(depth));
    if (!block.trace.mark.is_known()) [[unlikely]]
        return number(frames, 0);
    const SiteMemo::Key key{file, block.site.line, block.type, block.trace.mark};
    if (const uint32_t known = memo.find(key)) [[likely]]
        return known;
    const uint32_t found = number(frames, 0);
    memo.note(key, found);
    return found;
}

// The record of a block that was released past the wrappers, and is still there, gives way.
bool drop_stale(IndexEntry &entry, uint32_t value, uintptr_t address, Lane &lane) {
    if (IndexEntry::is_chain(value) || record_at(value).address != address || !entry.replace(value, 0))
        return false;
    end_record(value, lane);
    return true;
}

void drop_stale_alone(IndexEntry &entry, uintptr_t address, Lane &lane) {
    const uint32_t number = entry.find(address);
    if (number == 0)
        return;
    entry.remove(number, lane.free_records);
    end_record(number, lane);
}

// Alone: with nobody recording.
Outcome add(const NewBlock &block, Lane &lane, bool alone) {
    const uint64_t order = next_in_order(); // ahead of what waits for memory, which it would wait for
    IndexEntry *entry = make_entry(block.address);
    if (entry == nullptr)
        return Outcome::no_memory;
    if (const uint32_t value = entry->load()) [[unlikely]] {
        if (alone)
            drop_stale_alone(*entry, block.address, lane);
        else if (!drop_stale(*entry, value, block.address, lane))
            return Outcome::shared;
    }
    const uint32_t number = lane.free_records.take();
    const uint32_t site = number != 0 ? site_number(block, lane.memo) : 0;
    if (site == 0) {
        if (number != 0)
            lane.free_records.give_back(number);
        return Outcome::no_memory;
    }
    Record &record = record_at(number);
    __atomic_store_n(&record.address, block.address, __ATOMIC_RELAXED);
    record.size = block.size;
    record.site = site;
    record.start(order, block.type, gMCCycle, block.is_kept || thread_keeps_blocks != 0);
    if (!alone) {
        entry->store(number);
    } else if (!entry->add(number, lane.free_records)) {
        lane.free_records.give_back(number);
        return Outcome::no_memory;
    }
    lane.traffic.allocated[block.type].add(block.size);
    lane.tallies.allocated.add(site, block.size);
    return Outcome::done;
}

// With gMCLock held.
void add_alone(const NewBlock &block) {
    if (!exists || block.type >= MC_ALLOCATOR_TYPES)
        return;
    if (add(block, lane_of_lock_holder(), true) == Outcome::no_memory)
        print_lost_record();
}

void add_block(const NewBlock &block) {
    Outcome outcome;
    {
        const Recording recording;
        if (!recording)
            return;
        outcome = add(block, recording.lane(), false);
    }
    if (outcome == Outcome::done && !sites_need_sweep()) [[likely]]
        return;
    const RecordingAtLock at_lock;
    const CheckerLock lock(MCLock() != 0);
    if (!lock)
        return;
    if (outcome == Outcome::shared)
        add_alone(block);
    else if (outcome == Outcome::no_memory)
        print_lost_record();
    if (sites_need_sweep())
        sweep_sites();
}

void record(const NewBlock &block) {
    if (block.address != 0) [[likely]]
        add_block(block);
    else if (const CheckerLock lock(MCLock() != 0); lock)
        print_failed_allocation(block.site, block.size);
}

} // namespace

void record_while_on(Site site, uint16_t type, const void *user, size_t size, StackTrace &trace) {
    record({site, type, address_of(user), size, trace});
}

namespace {

// The end of a record: counted, free, and what is to be said of it.
class Settled {
public:
    void settle(uint32_t number, Lane &lane) {
        const Record &record = record_at(number);
        known = known_block(record);
        expect_tail(known);
        address_ = record.address;
        type_ = record.type();
        end_record(number, lane);
    }

    void complain_unless(uint16_t released, Site site) const {
        if (address_ == 0 || type_ == released) [[likely]]
            return;
        if (const CheckerLock lock(MCLock() != 0); lock)
            print_wrong_type(site, address_, type_, released);
    }

    KnownBlock known = unknown_block;

private:
    uintptr_t address_ = 0;
    unsigned type_ = 0;
};

} // namespace

KnownBlock forget_block(Site site, uint16_t type, const void *user) {
    if (!checker_on())
        return unexamined;
    expect_release(user);
    Settled settled;
    const auto settle = [&](uint32_t number, Lane &lane) { settled.settle(number, lane); };
    if (!take_record_of(address_of(user), settle))
        return unexamined;
    settled.complain_unless(type, site);
    return settled.known;
}

bool is_recorded(const void *user) {
    if (!checker_on())
        return false;
    {
        const Recording recording;
        const IndexEntry *entry = recording ? find_entry(address_of(user)) : nullptr;
        if (entry == nullptr)
            return false;
        const uint32_t value = entry->load();
        if (!IndexEntry::is_chain(value))
            return value != 0 && record_at(value).address == address_of(user);
    }
    const CheckerLock lock(MCLock() != 0);
    return lock && find_record(address_of(user)) != nullptr;
}

void report_null_release(Site site) {
    if (!checker_on())
        return;
    if (const CheckerLock lock(MCLock() != 0); lock)
        print_null_release(site);
}

RecordInHand take_record(const void *user) {
    RecordInHand hand{.known = unexamined};
    if (!checker_on())
        return hand;
    const auto take_in_hand = [&](uint32_t number, Lane &) {
        Record &record = record_at(number);
        record.take_in_hand(gMCCycle);
        hand = {number, gMCGeneration, known_block(record), record.is_kept()};
    };
    if (take_record_of(address_of(user), take_in_hand) && hand.number == 0)
        hand.known = unknown_block;
    return hand;
}

void put_record_back(const RecordInHand &hand) {
    if (hand.number == 0)
        return;
    const CheckerLock lock(take_checker_lock());
    if (!lock || hand.generation != gMCGeneration)
        return;
    Record &record = record_at(hand.number);
    Lane &lane = lane_of_lock_holder();
    record.put_back(gMCCycle);
    IndexEntry *entry = find_entry(record.address);
    // Somebody may have recorded another block there.
    if (entry == nullptr || entry->find(record.address) != 0 ||
        !entry->add(hand.number, lane.free_records))
        end_record(hand.number, lane);
}

void replace_record(const RecordInHand &hand, Site site, uint16_t type, const void *user, size_t size,
                    StackTrace &trace) {
    Settled settled;
    if (hand.number != 0) {
        const Recording recording;
        if (recording && hand.generation == gMCGeneration)
            settled.settle(hand.number, recording.lane());
    }
    settled.complain_unless(type, site);
    if (checker_on())
        record({site, type, address_of(user), size, trace, hand.is_kept});
}

bool create_registry() {
    exists = map_first_chunk() && map_site_table();
    return exists;
}

void release_registry() {
    exists = false;
    clear_lanes();
    unmap_index();
    unmap_chunks();
    unmap_site_table();
}

bool registry_exists() {
    return exists;
}

const Record *find_record(uintptr_t address) {
    const IndexEntry *entry = find_entry(address);
    const uint32_t number = entry != nullptr ? entry->find(address) : 0;
    return number != 0 ? &record_at(number) : nullptr;
}

Record *find_record_around(uintptr_t address) {
    uintptr_t highest = address;
    while (const uint32_t number = find_last_record(highest, 0)) {
        Record &record = record_at(number);
        if (address - record.address < std::max<size_t>(record.size, 1))
            return &record;
        if (record.address == 0)
            break;
        highest = record.address - 1;
    }
    return nullptr;
}

void unlist_all_records() {
    for_each_record([](Record &record) { record.unlist(gMCCycle); });
}

// Touches no record: that memory is shared until somebody writes to it.
void leave_blocks_to_parent() {
    first_own_block = blocks_recorded.load(std::memory_order_relaxed);
    begin_inheritance();
    MCResetStats();
}

uint64_t recorded_so_far() {
    return blocks_recorded.load(std::memory_order_relaxed);
}

void count_sites_anew() {
    first_counted_block = blocks_recorded.load(std::memory_order_relaxed);
    forget_tallies();
    reset_site_counts();
}

bool is_counted(const Record &record) {
    return record.order() >= first_counted_block;
}

bool is_parents(const Record &record) {
    return record.order() < first_own_block;
}

bool is_reported(const Record &record) {
    return record.is_listed() && !is_parents(record);
}

// The walk over all records has to pay, and the sites to be few beside them.
void sweep_sites() {
    uint32_t blocks = 0;
    hand_over_tallies();
    begin_site_sweep();
    for_each_record([&](const Record &record) {
        site_at(record.site).in_use = true;
        ++blocks;
    });
    end_site_sweep(blocks / 64);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void MCAlloc(const char *file, int line, uint16_t type, uintptr_t address, size_t size) {
    StackTrace trace;
    if (address != 0)
        add_alone({{file, line}, type, address, size, trace});
    else
        print_failed_allocation({file, line}, size);
}

void MCFree(const char *file, int line, uint16_t type, uintptr_t address) {
    if (address == 0) {
        if (type != MC_STD)
            print_null_release({file, line});
        return;
    }
    if (!registry_exists())
        return;
    Lane &lane = lane_of_lock_holder();
    const uint32_t number = take_alone(address, lane);
    if (number == 0)
        return;
    const unsigned allocated = record_at(number).type();
    if (allocated != type)
        print_wrong_type({file, line}, address, allocated, type);
    end_record(number, lane);
}

K42MC_EXPORT(MCAlloc);
K42MC_EXPORT(MCFree);
