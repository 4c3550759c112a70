// A program may release what our allocator has not handed out: blocks from before the shim was there or from
// inside the checker, from an allocator of a library's own, or from another namespace's. All of them lie in
// memory that nobody else has anything to say about.
#include "tools/preload/foreign.h"

#include "memcheck/registry.h"
#include "pages/pool.h"
#include "tools/preload/depth.h"
#include "tools/preload/own_allocator.h"
#include "wrappers/k42MC.h"
#include "wrappers/keep_back.h"
#include "wrappers/notice.h"
#include "wrappers/stray_pointer.h"

#include <atomic>

namespace {

using namespace k42mc::internal;

// In the terms of the defect line, as far as there is a block.
Defect defect_of(const StrayPointer &stray) {
    Defect defect = {.code = K42MC_DEFECT_WU};
    if (stray.kind != StrayPointer::Kind::in_block)
        return defect;
    defect.arena = stray.block.site.type + 1u;
    defect.size = stray.block.size;
    size_t count = 0;
    for (void *const frame : stray.block.site.trace())
        if (count < defect.trace.size())
            defect.trace[count++] = reinterpret_cast<uintptr_t>(frame);
    return defect;
}

// A program that releases another allocator's blocks all the time cannot have the whole registry searched for
// each: after many, a block is only looked for nearby.
uintptr_t reach_of_search() {
    constexpr int most_far = 100;
    constexpr uintptr_t nearby = 4096;
    static constinit std::atomic<int> searches = 0;
    if (searches.load(std::memory_order_relaxed) > most_far)
        return nearby;
    ++searches;
    return UINTPTR_MAX;
}

} // namespace

void stop_unless_foreign(uint16_t type, const void *pointer) {
    if (program_is_left_alone())
        return;
    const InsideChecker inside;
    const StrayPointer stray = examine_pointer(pointer, reach_of_search());
    if (!stray.may_be_anothers)
        stop_process({defect_of(stray), type + 1u, pointer, {.header_readable = false, .tail = 0}},
                     explain_stop);
}

void *take_back_unless_foreign(Site site, uint16_t type, void *pointer) {
    if (in_page_range(pointer))
        return take_back(site, type, pointer);
    const KnownBlock known = forget_block(site, type, pointer);
    if (known.tail != 0 || is_guarded(pointer))
        return release_block(site, type, pointer, known);
    stop_unless_foreign(type, pointer);
    return pointer;
}
