#include "platform/trace_cache.h"

#include "platform/threads.h"

#include <algorithm>

#include <errno.h>

namespace k42mc::internal::platform {

constinit thread_local TraceCache *TraceCache::own = nullptr;

namespace {

// For so many threads at a time; only what is used takes memory. Nobody tells when a thread ends, and
// the thread's own memory is no place: a library that is loaded late finds little room there.
constinit TraceCache gCaches[64] = {};

// Of threads that came too late: always resting.
constinit TraceCache gNoCache = {};

// Learning a frame costs about twice as much as knowing one saves. A cache that does not pay rests, for
// traces that did not repeat may do so later; finding out costs a fiftieth of the longest rest.
constexpr uint32_t unknown_frame_costs = 2, frames_to_judge = 2048;
constexpr uint32_t shortest_rest = 512, most_doublings = 4;

} // namespace

std::span<const std::byte> TraceCache::memory() {
    return std::as_bytes(std::span(gCaches));
}

void TraceCache::start() {
    state = available;
    known_frames = unknown_frames = rests = 0;
}

void TraceCache::claim() {
    const int kept_errno = errno;
    const uint64_t self = own_thread();
    gNoCache.state = resting;
    own = &gNoCache;
    for (TraceCache &cache : gCaches) {
        uint64_t owner = cache.owner.load(std::memory_order_relaxed);
        if ((owner == 0 || has_ended(owner)) &&
            cache.owner.compare_exchange_strong(owner, self, std::memory_order_acquire)) {
            cache.start();
            own = &cache;
            break;
        }
    }
    errno = kept_errno;
}

TraceCache *TraceCache::take_another_time() {
    if (!own)
        claim();
    else if (own != &gNoCache && own->state == resting && --own->rest == 0)
        own->state = available;
    return nullptr;
}

void TraceCache::release(int frames, int unknown) {
    State next_state = available;
    known_frames += static_cast<uint32_t>(frames - unknown);
    unknown_frames += static_cast<uint32_t>(unknown);
    if (known_frames + unknown_frames >= frames_to_judge) {
        if (known_frames < unknown_frame_costs * unknown_frames) {
            next_state = resting;
            rest = shortest_rest << std::min(rests++, most_doublings);
            known_frames = unknown_frames = 0;
        } else {
            rests = 0;
            known_frames /= 2;
            unknown_frames /= 2;
        }
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    state = next_state;
}

} // namespace k42mc::internal::platform
