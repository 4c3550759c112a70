// Where released blocks go: to the quarantine while there is one, else at once to their allocator.
#pragma once

#include "base/site.h"
#include "k42mc_debug.h"
#include "memcheck/quarantine.h"
#include "memcheck/registry.h"
#include "wrappers/k42MC.h"
#include "wrappers/notice.h"
#include "wrappers/page_blocks.h"

namespace k42mc::internal {

// As release_block does while there is a quarantine.
void *release_and_keep(Site site, uint16_t type, void *user, KnownBlock known);

// Checks and marks a block that is forgotten already. Returns the raw memory that is to go to the allocator, or null.
[[gnu::always_inline]] inline void *release_block(Site site, uint16_t type, void *user,
                                                  KnownBlock known) {
    if (quarantine_on()) [[unlikely]]
        return release_and_keep(site, type, user, known);
    return guard_release(type + 1u, user, known, explain_stop).raw;
}

// Forgets and checks a block that is not null. Returns the raw memory; null for pages of its own, which wait for their
// next use where they are. Has no frame of its own, which each walk up the stack would have to pass.
[[gnu::always_inline]] inline void *take_back(Site site, uint16_t type, void *ptr) {
    if (in_page_range(ptr)) [[unlikely]] {
        take_back_pages(site, type, ptr);
        return nullptr;
    }
    return release_block(site, type, ptr, forget_block(site, type, ptr));
}

// Offers the quarantine a block that is marked. Returns as release_block does.
void *keep_back(Site site, uint16_t type, void *user, const ReleasedBlock &block,
                const GuardTrace &allocation);

// Whether a block that a reallocation changes the size of has to move, so that its old address is a released block's. What
// grows by small steps stays, or all of it would be copied for each.
bool has_to_move(uint16_t type, const ReleasedBlock &block, size_t size);

// Releases all that is kept back. Returns whether that was anything.
bool empty_quarantine();

// Asks again for what an allocator had no memory for, once all that was kept back is its own again. Null where nothing was.
template <class Allocate>
[[gnu::cold, gnu::noinline]] void *allocate_again(size_t raw_size, Allocate allocate) {
    return empty_quarantine() ? allocate(raw_size) : nullptr;
}

// Null with errno ENOMEM when there is no memory. A size of 0 is one that does not fit.
template <class Allocate> void *allocate_raw(size_t raw_size, Allocate allocate) {
    if (raw_size == 0)
        return out_of_memory();
    void *raw = allocate(raw_size);
    return raw != nullptr ? raw : allocate_again(raw_size, allocate);
}

// Stops the process where something was written to a released block that is still kept back.
void examine_quarantine();

// As k42mcx_quarantine, for who examines it at exit by himself.
int set_quarantine(size_t bytes);

} // namespace k42mc::internal
