// The memory checker's shared state. It changes only with gMCLock held; who records reads it inside the
// gate.
#pragma once

#include "memcheck/traffic.h"

#include <atomic>
#include <k42mc/sl.hpp>
#include <stddef.h>

namespace k42mc::internal {

// What a backtrace filter and an allocation are compared by.
struct MCFilterKey {
    int32_t line;
    size_t size;
    uint16_t type;
    const char *file;
};

struct MCBTFilter {
    SLLink link;
    MCFilterKey key; // the file name is the filter's own copy
};

static_assert(offsetof(MCBTFilter, link) == 0);

inline constexpr uint32_t supported_bitmap =
    MC_TYPE_LKBF | MC_TYPE_SHM | MC_TYPE_BT_OFF | MC_TYPE_LK_RESET;

// The filters; null while the checker is off.
extern SLList *gMCFilterIn;
extern SLList *gMCFilterOut;

using FilterList = sl_view<MCBTFilter, &MCBTFilter::link>;

extern uint16_t gMCTypeBitmap; // written atomically: the wrappers peek at it outside the gate
extern uint32_t gMCCycle;      // the number of the last report
extern uint32_t gMCGeneration; // how often the registry was released
extern bool gMCDone;           // shut down by MCDeinit
extern bool gMCExitHooked;     // MCExit is registered, once in a process

// What the lanes had counted at the last report, and when statistics were last reset.
extern Traffic gMCTrafficAtReport;
extern Traffic gMCTrafficAtReset;

void set_type_bitmap(uint32_t bitmap);
inline bool traces_off_by_default() {
    return (std::atomic_ref(gMCTypeBitmap).load(std::memory_order_relaxed) & MC_TYPE_BT_OFF) != 0;
}

// Creates registry and filter lists. Returns false, with nothing left, when memory runs out.
bool create_containers();

void MCResetCycleStats();
void MCResetStats();

} // namespace k42mc::internal
