#include "memcheck/registry.h"

#include "base/checker_lock.h"
#include "base/printing.h"
#include "memcheck/filters.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <utility>

namespace k42mc::internal {
namespace {

// What is known of a block while the checker is off: its header is taken on trust.
constexpr KnownBlock unexamined{.header_readable = true, .tail = 0};

const char *type_name(uint16_t type) {
    return type < MC_ALLOCATOR_TYPES ? gAllocatorType[type] : "UNKNOWN";
}

void print_failed_allocation(Site site, size_t size) {
    const Printing printing;
    MCSinkLine(site.file, ":%d:NA:0x%0X:%zu\n", site.line, 0u, size);
}

// Below a line about the call in progress, the call itself.
void print_current_trace(const char *title) {
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    if (trace.count > 0)
        write_backtrace(MCSink(), title, trace.frames, trace.count);
}

void print_null_release(Site site) {
    const Printing printing;
    MCSinkLine(site.file, ":%d:NF:0x%0X:%u\n", site.line, 0u, 0u);
    print_current_trace("Backtrace of the NULL free:\n");
}

void print_wrong_type(const MCAllocRec &record, Site site, uint16_t type) {
    const Printing printing;
    MCSinkLine(site.file,
               ":%d:BF: WRONG deallocator type for 0x%0" PRIXPTR "; allocType: %s, freeType: %s\n",
               site.line, record.address, type_name(record.key.type), type_name(type));
    print_current_trace("Backtrace of the bad free:\n");
}

void print_lost_record() {
    const Printing printing;
    MCSinkLine("============ MCAlloc", ": Memory allocation failure ===========\n");
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
    record.key = {.line = site.line,
                  .size = size,
                  .type = type,
                  .file = site.file != nullptr ? site.file : "(null)"};
    record.cycles = 0;
    record.address = address;
    record.frameCount = 0;
    if (trace.depth == StackTrace::deepest)
        keep_frames(record, trace);
}

void copy_description(MCAllocRec &to, const MCAllocRec &from) {
    to.containers = from.containers;
    memcpy(&to.key, &from.key, sizeof from - offsetof(MCAllocRec, key));
}

// Links a record into the tree. Returns it, or the one of a block that was released past the wrappers
// and is still recorded there, out of the live list and with the new one's description: the new one is
// left to its owner then.
MCAllocRec *enter(MCAllocRec *&record) {
    MCAllocRec *const stale = RecordTree(gMCTree).insert(*record);
    if (stale == nullptr)
        return std::exchange(record, nullptr);
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

// The description is null for a block that there is none of, or where there was no memory for it. Leaves
// memory that it does not need to its caller.
void add_record(Site site, uint16_t type, uintptr_t address, size_t size, StackTrace &trace,
                MCAllocRec *&described) {
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
void settle(MCAllocRec *record, Site site, uint16_t type) {
    if (record->key.type != type)
        print_wrong_type(*record, site, type);
    MCCountFree(record->key.type, record->key.size);
    unlist(record);
}

KnownBlock known_block(const MCAllocRec *record) {
    if (record == nullptr)
        return {.header_readable = false, .tail = 0};
    return {.header_readable = true, .tail = record->address + record->key.size};
}

uintptr_t address_of(const void *user) {
    return reinterpret_cast<uintptr_t>(user);
}

// Null for no block, and where there is no memory. Obtained and released without the lock, where it can
// be.
MCAllocRec *new_record(Site site, uint16_t type, uintptr_t address, size_t size,
                       const StackTrace &trace) {
    auto *const record = address != 0 ? static_cast<MCAllocRec *>(malloc(sizeof(MCAllocRec))) : nullptr;
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
    MCAllocRec *record = new_record(site, type, address_of(user), size, trace);
    if (MCLock()) {
        add_record(site, type, address_of(user), size, trace, record);
        MCUnlock();
    }
    free(record);
}

KnownBlock forget_block(Site site, uint16_t type, const void *user) {
    if (!checker_on() || !MCLock())
        return unexamined;
    MCAllocRec *record = take(address_of(user));
    const KnownBlock known = known_block(record);
    if (record != nullptr)
        settle(record, site, type);
    MCUnlock();
    free(record);
    return known;
}

void report_null_release(Site site, uint16_t type) {
    if (!checker_on() || !MCLock())
        return;
    MCFree(site.file, site.line, type, 0);
    MCUnlock();
}

RecordInHand take_record(const void *user) {
    if (!checker_on() || !MCLock())
        return {.record = nullptr, .generation = 0, .known = unexamined};
    MCAllocRec *record = take(address_of(user));
    const RecordInHand hand{record, gMCGeneration, known_block(record)};
    MCUnlock();
    return hand;
}

void put_record_back(const RecordInHand &hand) {
    if (hand.record == nullptr || pthread_mutex_lock(&gMCLock) != 0)
        return;
    const bool back =
        hand.generation == gMCGeneration && RecordTree(gMCTree).insert(*hand.record) == nullptr;
    if (!back)
        unlist(hand.record);
    MCUnlock();
    if (!back)
        free(hand.record);
}

void replace_record(const RecordInHand &hand, Site site, uint16_t type, const void *user, size_t size,
                    StackTrace &trace) {
    if (hand.record == nullptr) {
        record_block(site, type, user, size, trace);
        return;
    }
    if (pthread_mutex_lock(&gMCLock) != 0)
        return;
    if (hand.generation == gMCGeneration)
        settle(hand.record, site, type);
    MCAllocRec *record = hand.record;
    if (checker_on()) {
        describe(*record, site, type, address_of(user), size, trace);
        add_record(site, type, address_of(user), size, trace, record);
    }
    MCUnlock();
    free(record);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void MCAlloc(const char *file, int line, uint16_t type, uintptr_t address, size_t size) {
    StackTrace trace;
    MCAllocRec *record = new_record({file, line}, type, address, size, trace);
    add_record({file, line}, type, address, size, trace, record);
    free(record);
}

void MCFree(const char *file, int line, uint16_t type, uintptr_t address) {
    if (address == 0) {
        if (type != MC_STD)
            print_null_release({file, line});
        return;
    }
    MCAllocRec *record = take(address);
    if (record != nullptr)
        settle(record, {file, line}, type);
    free(record);
}

K42MC_EXPORT(MCAlloc);
K42MC_EXPORT(MCFree);
