// The registry of live blocks.
#pragma once

#include "base/checker_lock.h"
#include "base/site.h"
#include "k42mc_debug.h"
#include "memcheck/block_index.h"
#include "memcheck/record.h"
#include "memcheck/site_table.h"
#include "memcheck/state.h"

namespace k42mc::internal {

// ---- As the wrappers use it: each of these does nothing while the checker is off ----

// A record that nobody finds while the underlying allocator works on the block.
struct RecordInHand {
    uint32_t number = 0; // 0: the block was not recorded
    uint32_t generation = 0;
    KnownBlock known;
    bool is_kept = false;
};

// How many frames the records of new blocks will want, as far as can be told outside the gate.
inline int trace_depth() {
    return checker_on() && !traces_off_by_default() ? StackTrace::deepest : int{K42MC_GUARD_TRACE};
}

// A block will be recorded soon, at about this address: what that needs is on its way from memory meanwhile.
inline void expect_block(const void *memory) {
    if (checker_on())
        platform::prefetch(reinterpret_cast<uintptr_t>(find_entry(reinterpret_cast<uintptr_t>(memory))));
}

// Records a block; null reports a failed allocation.
void record_while_on(Site site, uint16_t type, const void *user, size_t size, StackTrace &trace);
inline void record_block(Site site, uint16_t type, const void *user, size_t size, StackTrace &trace) {
    if (checker_on())
        record_while_on(site, type, user, size, trace);
}

// Forgets a block that is about to be checked and released.
KnownBlock forget_block(Site site, uint16_t type, const void *user);

// Whether a block is recorded, whatever its guards say.
bool is_recorded(const void *user);

void report_null_release(Site site);

// The three steps of a reallocation: take the record; then either put it back as it was, or settle it
// and record the new block. A record whose registry was released meanwhile is dropped.
RecordInHand take_record(const void *user);
void put_record_back(const RecordInHand &hand);
void replace_record(const RecordInHand &hand, Site site, uint16_t type, const void *user, size_t size,
                    StackTrace &trace);

// ---- As control functions use it, with gMCLock held ----

// What is told of a recorded block.
struct RecordedBlock {
    RecordedBlock(const Record &record, uint32_t cycle)
        : site(site_at(record.site)), address(record.address), size(record.size),
          age(record.age(cycle)) {}

    const AllocationSite &site;
    uintptr_t address;
    size_t size;
    uint32_t age; // in reports
};

// Returns false when memory runs out.
bool create_registry();
void release_registry();
bool registry_exists();

// Null where there is none.
const Record *find_record(uintptr_t address);

// The innermost block that an address lies in, as far as blocks can have it; null where there is none, after a look at
// all that begin below.
Record *find_record_around(uintptr_t address);

// Leaves all blocks in the registry, and out of reports.
void unlist_all_records();

// Reports leave out what was recorded so far: it is the parent's. In a child of fork, which has no other thread
// yet.
void leave_blocks_to_parent();

// How many have been recorded: what is recorded later has at least that number in the order.
uint64_t recorded_so_far();

// From now on, what sites have allocated is what is allocated from now on.
void count_sites_anew();

// Whether a block is among that.
bool is_counted(const Record &record);

// Whether it is one of those.
bool is_parents(const Record &record);

// Whether reports look at a record.
bool is_reported(const Record &record);

// Sites that no block needs any more make room.
void sweep_sites();

} // namespace k42mc::internal
