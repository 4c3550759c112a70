#include "memcheck/registry.h"

#include "base/checker_lock.h"
#include "base/printing.h"
#include "memcheck/filters.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

#include <inttypes.h>
#include <memory>
#include <stdlib.h>
#include <string.h>

namespace k42mc::internal {
namespace {

// What is known of a block while the checker is off: its header is taken on trust.
constexpr KnownBlock unexamined{.header_readable = true, .tail = 0};

struct Release {
    void operator()(MCAllocRec *record) const { free(record); }
};

// A record that nothing links to.
using RecordMemory = std::unique_ptr<MCAllocRec, Release>;

const char *type_name(uint16_t type) {
    return type < MC_ALLOCATOR_TYPES ? gAllocatorType[type] : "UNKNOWN";
}

const char *name_of(Site site) {
    return site.file != nullptr ? site.file : "(null)";
}

void print_failed_allocation(Site site, size_t size) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:NA:0x%0X:%zu\n", site.line, 0u, size);
}

// Below a line about the call in progress, the call itself.
void put_current_trace(TextOutput &out, const char *title) {
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    if (trace.count > 0)
        put_trace(out, title, trace.innermost(StackTrace::deepest));
}

void print_null_release(Site site) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:NF:0x%0X:%u\n", site.line, 0u, 0u);
    put_current_trace(*out, "Backtrace of the NULL free:\n");
}

void print_wrong_type(const MCAllocRec &record, Site site, uint16_t type) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:BF: WRONG deallocator type for 0x%0" PRIXPTR "; allocType: %s, freeType: %s\n",
               site.line, record.address, type_name(record.key.type), type_name(type));
    put_current_trace(*out, "Backtrace of the bad free:\n");
}

void print_lost_record() {
    const Printing printing;
    SinkText()->print("============ %s: Memory allocation failure ===========\n", "MCAlloc");
}

void unlist(MCAllocRec *record) {
    if (record->containers == 2)
        RecordList(gMCList).remove(*record);
}

void keep_frames(MCAllocRec &record, const StackTrace &trace) {
    const auto frames = trace.innermost(MCAllocRec::most_frames);
    record.frameCount = static_cast<uint32_t>(frames.size());
    memcpy(record.frames, frames.data(), frames.size_bytes());
}

// All but the links. Where it can be without the lock: the record's memory is cold.
void describe(MCAllocRec &record, Site site, uint16_t type, uintptr_t address, size_t size,
              const StackTrace &trace) {
    record.containers = 2;
    record.in_hand = false;
    record.key = {.line = site.line, .size = size, .type = type, .file = name_of(site)};
    record.cycles = 0;
    record.address = address;
    record.frameCount = 0;
    if (trace.depth == StackTrace::deepest)
        keep_frames(record, trace);
}

void copy_description(MCAllocRec &to, const MCAllocRec &from) {
    to.containers = from.containers;
    to.in_hand = from.in_hand;
    memcpy(&to.key, &from.key, sizeof from - offsetof(MCAllocRec, key));
}

// Links a record into the tree. Returns it; or the one of a block that was released past the wrappers
// and is still recorded there, out of the live list and with the new one's description: the new one is
// left to its owner then.
MCAllocRec *enter(RecordMemory &record) {
    MCAllocRec *const stale = RecordTree(gMCTree).insert(*record);
    if (stale == nullptr)
        return record.release();
    MCCountFree(stale->key.type, stale->key.size);
    unlist(stale);
    copy_description(*stale, *record);
    return stale;
}

void settle_backtrace(MCAllocRec &record, StackTrace &trace) {
    if (!wants_backtrace(record.key)) {
        record.frameCount = 0;
    } else if (trace.depth < StackTrace::deepest) {
        trace.capture(StackTrace::deepest);
        keep_frames(record, trace);
    }
}

// The record is null for a block that there is none of, or where there was no memory for it. One that is
// not needed is left to its owner, to be released behind the lock.
void add_record(Site site, uint16_t type, uintptr_t address, size_t size, StackTrace &trace,
                RecordMemory &described) {
    if (address == 0) {
        print_failed_allocation(site, size);
        return;
    }
    if (gMCTree == nullptr || type >= MC_ALLOCATOR_TYPES)
        return;
    if (described == nullptr) {
        print_lost_record();
        return;
    }
    MCAllocRec *const record = enter(described);
    RecordList(gMCList).insert_last(*record);
    settle_backtrace(*record, trace);
    gMCAllocCycle[type].add(size);
    gMCAllocSinceReset[type].add(size);
}

// The first half of forgetting a block: out of the tree.
MCAllocRec *take(uintptr_t address) {
    return gMCTree != nullptr ? RecordTree(gMCTree).remove_key(address) : nullptr;
}

// The second half: everything else. The record is memory afterwards.
RecordMemory settle(MCAllocRec *record, Site site, uint16_t type) {
    if (record->key.type != type)
        print_wrong_type(*record, site, type);
    MCCountFree(record->key.type, record->key.size);
    unlist(record);
    return RecordMemory(record);
}

KnownBlock known_block(const MCAllocRec *record) {
    if (record == nullptr)
        return {.header_readable = false, .tail = 0};
    return {.header_readable = true, .tail = record->address + record->key.size};
}

uintptr_t address_of(const void *user) {
    return reinterpret_cast<uintptr_t>(user);
}

// Null for no block, and where there is no memory. Obtained without the lock, where it can be.
RecordMemory new_record(Site site, uint16_t type, uintptr_t address, size_t size,
                        const StackTrace &trace) {
    RecordMemory record(address != 0 ? static_cast<MCAllocRec *>(malloc(sizeof(MCAllocRec))) : nullptr);
    if (record != nullptr)
        describe(*record, site, type, address, size, trace);
    return record;
}

} // namespace

int trace_depth() {
    return checker_on() && !traces_off_by_default() ? StackTrace::deepest : int{K42MC_GUARD_TRACE};
}

void record_block(Site site, uint16_t type, const void *user, size_t size, StackTrace &trace) {
    if (!checker_on())
        return;
    RecordMemory record = new_record(site, type, address_of(user), size, trace);
    if (const CheckerLock lock(MCLock() != 0); lock)
        add_record(site, type, address_of(user), size, trace, record);
}

KnownBlock forget_block(Site site, uint16_t type, const void *user) {
    if (!checker_on())
        return unexamined;
    RecordMemory memory; // released behind the lock
    const CheckerLock lock(MCLock() != 0);
    if (!lock)
        return unexamined;
    MCAllocRec *const record = take(address_of(user));
    const KnownBlock known = known_block(record);
    if (record != nullptr)
        memory = settle(record, site, type);
    return known;
}

void report_null_release(Site site) {
    if (!checker_on())
        return;
    if (const CheckerLock lock(MCLock() != 0); lock)
        print_null_release(site);
}

RecordInHand take_record(const void *user) {
    if (!checker_on())
        return {.record = nullptr, .generation = 0, .known = unexamined};
    const CheckerLock lock(MCLock() != 0);
    if (!lock)
        return {.record = nullptr, .generation = 0, .known = unexamined};
    MCAllocRec *const record = take(address_of(user));
    if (record != nullptr)
        record->in_hand = true;
    return {record, gMCGeneration, known_block(record)};
}

void put_record_back(const RecordInHand &hand) {
    if (hand.record == nullptr)
        return;
    RecordMemory dropped;
    const CheckerLock lock(take_checker_lock());
    if (!lock)
        return;
    hand.record->in_hand = false;
    if (hand.generation == gMCGeneration && RecordTree(gMCTree).insert(*hand.record) == nullptr)
        return;
    unlist(hand.record);
    dropped.reset(hand.record);
}

void replace_record(const RecordInHand &hand, Site site, uint16_t type, const void *user, size_t size,
                    StackTrace &trace) {
    if (hand.record == nullptr) {
        record_block(site, type, user, size, trace);
        return;
    }
    RecordMemory record;
    const CheckerLock lock(take_checker_lock());
    if (!lock)
        return;
    if (hand.generation == gMCGeneration)
        record = settle(hand.record, site, type);
    else
        record.reset(hand.record);
    if (checker_on()) {
        describe(*record, site, type, address_of(user), size, trace);
        add_record(site, type, address_of(user), size, trace, record);
    }
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void MCAlloc(const char *file, int line, uint16_t type, uintptr_t address, size_t size) {
    StackTrace trace;
    RecordMemory record = new_record({file, line}, type, address, size, trace);
    add_record({file, line}, type, address, size, trace, record);
}

void MCFree(const char *file, int line, uint16_t type, uintptr_t address) {
    if (address == 0) {
        if (type != MC_STD)
            print_null_release({file, line});
        return;
    }
    if (MCAllocRec *const record = take(address))
        settle(record, {file, line}, type);
}

K42MC_EXPORT(MCAlloc);
K42MC_EXPORT(MCFree);
