// The registry of live blocks, as the wrappers use it. Each of these takes gMCLock for itself and does
// nothing while the checker is off.
#pragma once

#include "base/site.h"
#include "k42mc_debug.h"

namespace k42mc::internal {

struct MCAllocRec;

// A block's record taken out of the tree while the underlying allocator works on the block. The hand
// holds the count that the tree held.
struct RecordInHand {
    MCAllocRec *record; // null: the block was not recorded
    uint32_t generation;
    KnownBlock known;
};

// How many frames the records of new blocks will want, as far as can be told without the lock.
int trace_depth();

// Records a block; null reports a failed allocation.
void record_block(Site site, uint16_t type, const void *user, size_t size, StackTrace &trace);

// Forgets a block that is about to be checked and released.
KnownBlock forget_block(Site site, uint16_t type, const void *user);

void report_null_release(Site site);

// The three steps of a reallocation: take the record; then either put it back as it was, or settle it
// and record the new block. A record whose registry was released meanwhile is dropped.
RecordInHand take_record(const void *user);
void put_record_back(const RecordInHand &hand);
void replace_record(const RecordInHand &hand, Site site, uint16_t type, const void *user, size_t size,
                    StackTrace &trace);

} // namespace k42mc::internal
