#include "memcheck/state.h"

#include "memcheck/filters.h"

#include <atomic>
#include <stdlib.h>
#include <string.h>

namespace k42mc::internal {

constinit PTTree *gMCTree = nullptr;
constinit DLList *gMCList = nullptr;
constinit SLList *gMCFilterIn = nullptr;
constinit SLList *gMCFilterOut = nullptr;

constinit uint16_t gMCTypeBitmap = 0;
constinit uint32_t gMCCycle = 0;
constinit uint32_t gMCGeneration = 0;
constinit bool gMCDone = false;
constinit bool gMCExitHooked = false;

constinit MCCounter gMCAllocCycle[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCAllocSinceReset[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCFreeCycle[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCFreeSinceReset[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCHeldCycle[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCHeldCycleSum = {};
constinit MCCounter gMCHeldSinceReset[MC_ALLOCATOR_TYPES] = {};
constinit MCCounter gMCHeldSinceResetSum = {};

void set_type_bitmap(uint32_t bitmap) {
    std::atomic_ref(gMCTypeBitmap).store(static_cast<uint16_t>(bitmap), std::memory_order_relaxed);
}

bool traces_off_by_default() {
    return (std::atomic_ref(gMCTypeBitmap).load(std::memory_order_relaxed) & MC_TYPE_BT_OFF) != 0;
}

bool create_containers() {
    constexpr int16_t address_bits = 8 * sizeof(uintptr_t);
    if (PTInit(&gMCTree, nullptr, nullptr, offsetof(MCAllocRec, node), offsetof(MCAllocRec, address),
               address_bits, 0, MCRecordRelease) == DS_OK &&
        DLInit(&gMCList, nullptr, nullptr, offsetof(MCAllocRec, link), MCRecordRelease) == DS_OK &&
        SLInit(&gMCFilterIn, nullptr, nullptr, offsetof(MCBTFilter, link), MCFilterRelease) == DS_OK &&
        SLInit(&gMCFilterOut, nullptr, nullptr, offsetof(MCBTFilter, link), MCFilterRelease) == DS_OK)
        return true;
    if (gMCTree != nullptr)
        PTDeinit(&gMCTree);
    if (gMCList != nullptr)
        DLDeinit(&gMCList);
    if (gMCFilterIn != nullptr)
        SLDeinit(&gMCFilterIn);
    if (gMCFilterOut != nullptr)
        SLDeinit(&gMCFilterOut);
    return false;
}

void MCRecordRelease(void *element) {
    auto *record = static_cast<MCAllocRec *>(element);
    if (--record->containers == 0)
        free(record);
}

void MCCountFree(uint16_t type, size_t size) {
    gMCFreeCycle[type].add(size);
    gMCFreeSinceReset[type].add(size);
}

void MCResetCycleStats() {
    gMCHeldCycleSum = {};
    memset(gMCHeldCycle, 0, sizeof gMCHeldCycle);
    memset(gMCAllocCycle, 0, sizeof gMCAllocCycle);
    memset(gMCFreeCycle, 0, sizeof gMCFreeCycle);
    gMCHeldSinceResetSum = {};
    memset(gMCHeldSinceReset, 0, sizeof gMCHeldSinceReset);
}

void MCResetStats() {
    MCResetCycleStats();
    memset(gMCAllocSinceReset, 0, sizeof gMCAllocSinceReset);
    memset(gMCFreeSinceReset, 0, sizeof gMCFreeSinceReset);
}

} // namespace k42mc::internal
