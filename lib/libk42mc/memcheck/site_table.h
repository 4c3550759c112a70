// What blocks have in common, once for all of them: where they were allocated, in which family, and by
// which stack trace.
#pragma once

#include "memcheck/site_counts.h"

#include <span>

namespace k42mc::internal {

struct AllocationSite {
    static constexpr uint16_t most_frames = 16;

    const char *file;
    int32_t line;
    uint16_t type;
    uint8_t frame_count; // 0: no stack trace
    bool in_use;         // since the last sweep began
    uint32_t outer;      // the number of its further frames; 0 where none were asked for
    uint32_t hash;
    uint32_t summary; // of a snapshot that is being taken: the number of its line, from 1; else 0
    void *frames[most_frames];

    std::span<void *const> trace() const { return {frames, frame_count}; }
};

// Counts stand apart, as threads that look for a site would wait for those that add to them.
struct SiteChunk {
    static constexpr uint32_t room = 256;

    AllocationSite sites[room];
    SiteCounts counts[room];
};

inline constexpr uint32_t most_site_chunks = 1u << 14;
extern constinit SiteChunk *gMCSites[most_site_chunks];

// Sites are called by their numbers; 0 is none.
inline AllocationSite &site_at(uint32_t number) {
    return gMCSites[number / SiteChunk::room]->sites[number % SiteChunk::room];
}

inline SiteCounts &counts_at(uint32_t number) {
    return gMCSites[number / SiteChunk::room]->counts[number % SiteChunk::room];
}

// How many numbers there may be, from 0.
uint32_t most_sites();

// The number of a site, which is entered if there is none. Takes no lock where there is. Returns 0 when
// memory runs out.
uint32_t number_of_site(const char *file, int32_t line, uint16_t type, std::span<void *const> frames,
                        uint32_t outer);

// How often numbers of sites may have come to mean others. It changes with nobody recording.
extern constinit uint32_t site_sweeps;

// Whether so many sites were entered that looking for those that no block needs any more is worth it.
bool sites_need_sweep();

// The rest is done with nobody recording. A sweep forgets the sites whose flag nobody has set since it began, but for
// some thousands that have allocated most; the next is not due before so many have been entered.
void begin_site_sweep();
void end_site_sweep(uint32_t until_next);
bool map_site_table();
void unmap_site_table();
void begin_snapshot_of_sites();

// What the sites that were forgotten had allocated; no block of theirs is left.
struct ForgottenCounts {
    MCCounter allocated, outlived;
};
const ForgottenCounts &forgotten_counts();

// All sites have allocated nothing.
void reset_site_counts();

} // namespace k42mc::internal
