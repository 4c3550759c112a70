// What stack traces have beyond the frames that a site keeps itself, where somebody asks for deeper ones. Sites share
// it: it is kept once, and for good.
#pragma once

#include "memcheck/site_table.h"

#include <k42mc/extra.h>

namespace k42mc::internal {

struct OuterFrames {
    static constexpr size_t most = K42MCX_DEEP - AllocationSite::most_frames;

    uint32_t count; // of a trace that goes no further, perhaps 0
    bool is_cut;    // with as many frames as were asked for, there may be more
    void *frames[most];

    std::span<void *const> trace() const { return {frames, count}; }
};

// How many frames traces of allocations have at most.
extern constinit std::atomic<int> trace_limit;

// Their number, from 1; 0 where there is no room left. Takes no lock where they are known.
uint32_t number_of_outer_frames(std::span<void *const> frames, bool is_cut);

const OuterFrames &outer_frames_at(uint32_t number);

} // namespace k42mc::internal
