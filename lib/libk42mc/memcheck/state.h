// The memory checker's shared state. All of it is read and written with gMCLock held.
#pragma once

#include "linkage/linkage.h"

#include <k42mc/dl.hpp>
#include <k42mc/pt.hpp>
#include <k42mc/sl.hpp>
#include <span>
#include <stddef.h>

namespace k42mc::internal {

// What a backtrace filter and an allocation are compared by.
struct MCFilterKey {
    int32_t line;
    size_t size;
    uint16_t type;
    const char *file;
};

// One recorded block. It comes from the system allocator, never through the wrappers.
struct MCAllocRec {
    static constexpr int most_frames = 16;

    DLLink link;        // in the live list
    uint8_t containers; // that hold the record: 2, or 1 for the tree alone
    bool in_hand;       // out of the tree: its block is being reallocated, and nobody may look at it
    PTNode node;        // in the tree
    MCFilterKey key;
    uint32_t cycles; // reports that have seen the record
    uintptr_t address;
    void *frames[most_frames];
    uint32_t frameCount; // 0: no stack trace

    std::span<void *const> trace() const { return {frames, frameCount}; }
};

struct MCBTFilter {
    SLLink link;
    MCFilterKey key; // the file name is the filter's own copy
};

struct MCCounter {
    unsigned long long count;
    unsigned long long bytes;

    void add(size_t size) {
        ++count;
        bytes += size;
    }
};

static_assert(offsetof(MCAllocRec, link) == 0 && offsetof(MCBTFilter, link) == 0);
static_assert(sizeof(void *) != 4 ||
              (offsetof(MCAllocRec, node) == 12 && offsetof(MCAllocRec, key) == 24 &&
               offsetof(MCAllocRec, cycles) == 40 && offsetof(MCAllocRec, address) == 44 &&
               offsetof(MCAllocRec, frames) == 48 && sizeof(MCAllocRec) == 116));

inline constexpr uint32_t supported_bitmap =
    MC_TYPE_LKBF | MC_TYPE_SHM | MC_TYPE_BT_OFF | MC_TYPE_LK_RESET;

// The registry and the filters; null while the checker is off.
extern PTTree *gMCTree;
extern DLList *gMCList;
extern SLList *gMCFilterIn;
extern SLList *gMCFilterOut;

// The typed front ends, which know what they hold: every allocation goes through them.
using RecordTree = pt_view<MCAllocRec, &MCAllocRec::node, &MCAllocRec::address>;
using RecordList = dl_view<MCAllocRec, &MCAllocRec::link>;
using FilterList = sl_view<MCBTFilter, &MCBTFilter::link>;

extern uint16_t gMCTypeBitmap; // written atomically: the wrappers peek at it without the lock
extern uint32_t gMCCycle;      // the number of the last report
extern uint32_t gMCGeneration; // how often the registry was released
extern bool gMCDone;           // shut down by MCDeinit
extern bool gMCExitHooked;     // MCExit is registered, once in a process

extern MCCounter gMCAllocCycle[MC_ALLOCATOR_TYPES];
extern MCCounter gMCAllocSinceReset[MC_ALLOCATOR_TYPES];
extern MCCounter gMCFreeCycle[MC_ALLOCATOR_TYPES];
extern MCCounter gMCFreeSinceReset[MC_ALLOCATOR_TYPES];
extern MCCounter gMCHeldCycle[MC_ALLOCATOR_TYPES];
extern MCCounter gMCHeldCycleSum;
extern MCCounter gMCHeldSinceReset[MC_ALLOCATOR_TYPES];
extern MCCounter gMCHeldSinceResetSum;

void set_type_bitmap(uint32_t bitmap);
bool traces_off_by_default();

// Creates tree, live list and filter lists. Returns false, with nothing left, when memory runs out.
bool create_containers();

// The destroy hook of tree and live list: frees the record when the last of them lets go.
void MCRecordRelease(void *record);

void MCCountFree(uint16_t type, size_t size);

// Everything but the allocations and frees since the last reset.
void MCResetCycleStats();
void MCResetStats();

} // namespace k42mc::internal
