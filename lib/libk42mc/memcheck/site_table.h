// What blocks have in common, once for all of them: where they were allocated, in which family, and by
// which stack trace.
#pragma once

#include <atomic>
#include <span>
#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

struct AllocationSite {
    static constexpr uint16_t most_frames = 16;

    const char *file;
    int32_t line;
    uint16_t type;
    uint16_t frame_count; // 0: no stack trace
    uint32_t hash;
    bool in_use;      // since the last sweep began
    uint32_t summary; // of a snapshot that is being taken: the number of its line, from 1; else 0
    void *frames[most_frames];

    std::span<void *const> trace() const { return {frames, frame_count}; }
};

inline constexpr uint32_t sites_a_chunk = 256, most_site_chunks = 1u << 14;
extern constinit AllocationSite *gMCSites[most_site_chunks];

// Sites are called by their numbers; 0 is none.
inline AllocationSite &site_at(uint32_t number) {
    return gMCSites[number / sites_a_chunk][number % sites_a_chunk];
}

// How many numbers there may be, from 0.
uint32_t most_sites();

// The number of a site, which is entered if there is none. Takes no lock where there is. Returns 0 when
// memory runs out.
uint32_t number_of_site(const char *file, int32_t line, uint16_t type, std::span<void *const> frames);

// Whether so many sites were entered that looking for those that no block needs any more is worth it.
bool sites_need_sweep();

// The rest is done with nobody recording. A sweep forgets the sites whose flag nobody has set since it began;
// the next is not due before so many have been entered.
void begin_site_sweep();
void end_site_sweep(uint32_t until_next);
bool map_site_table();
void unmap_site_table();
void forget_summaries();

} // namespace k42mc::internal
