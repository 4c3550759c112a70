#include "memcheck/state.h"

#include "memcheck/filters.h"
#include "memcheck/lane.h"
#include "memcheck/registry.h"

#include <atomic>

namespace k42mc::internal {

constinit SLList *gMCFilterIn = nullptr;
constinit SLList *gMCFilterOut = nullptr;

constinit uint16_t gMCTypeBitmap = 0;
constinit uint32_t gMCCycle = 0;
constinit uint32_t gMCGeneration = 0;
constinit bool gMCDone = false;
constinit bool gMCExitHooked = false;

constinit Traffic gMCTrafficAtReport = {};
constinit Traffic gMCTrafficAtReset = {};

void set_type_bitmap(uint32_t bitmap) {
    std::atomic_ref(gMCTypeBitmap).store(static_cast<uint16_t>(bitmap), std::memory_order_relaxed);
}

bool create_containers() {
    if (create_registry() &&
        SLInit(&gMCFilterIn, nullptr, nullptr, offsetof(MCBTFilter, link), MCFilterRelease) == DS_OK &&
        SLInit(&gMCFilterOut, nullptr, nullptr, offsetof(MCBTFilter, link), MCFilterRelease) == DS_OK)
        return true;
    release_registry();
    if (gMCFilterIn != nullptr)
        SLDeinit(&gMCFilterIn);
    if (gMCFilterOut != nullptr)
        SLDeinit(&gMCFilterOut);
    return false;
}

void MCResetCycleStats() {
    gMCTrafficAtReport = total_traffic();
}

void MCResetStats() {
    gMCTrafficAtReport = gMCTrafficAtReset = total_traffic();
    count_sites_anew();
}

} // namespace k42mc::internal
