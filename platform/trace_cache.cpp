#include "platform/trace_cache.h"

#include "platform/platform.h"
#include "platform/threads.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include <errno.h>

namespace k42mc::internal::platform {

constinit thread_local TraceCache *TraceCache::own = nullptr;
constinit thread_local bool TraceCache::came_too_late = false;

namespace {

// Nobody tells when a thread ends, and the thread's own memory is no place: a library that is loaded late
// finds little room there. So a cache stays, for one thread after another.
struct CachePlace {
    std::atomic<uint64_t> owner; // process and thread, as the system numbers them
    std::atomic<TraceCache *> cache;

    // Whether it is the thread's now.
    bool claim(uint64_t thread) {
        uint64_t former = owner.load(std::memory_order_relaxed);
        return (former == 0 || has_ended(former)) &&
               owner.compare_exchange_strong(former, thread, std::memory_order_acquire);
    }

    // For its owner. Null when memory runs out.
    TraceCache *cache_of_owner(size_t number) {
        TraceCache *known = cache.load(std::memory_order_relaxed);
        if (known == nullptr) {
            known = static_cast<TraceCache *>(map_memory(sizeof(TraceCache)));
            if (known != nullptr)
                known->begin_serials(number);
            cache.store(known, std::memory_order_release);
        }
        return known;
    }
};

constinit CachePlace places[TraceCache::most] = {};

// Learning a frame costs about twice as much as knowing one saves. A cache that does not pay rests, for
// traces that did not repeat may do so later; finding out costs a fiftieth of the longest rest.
constexpr uint32_t unknown_frame_costs = 2, frames_to_judge = 2048;
constexpr uint32_t shortest_rest = 512, most_doublings = 4;

} // namespace

const TraceCache *TraceCache::number(size_t i) {
    return places[i].cache.load(std::memory_order_acquire);
}

void TraceCache::start() {
    state = available;
    known_frames = unknown_frames = rests = 0;
}

void TraceCache::claim() {
    const int kept_errno = errno;
    const uint64_t self = own_thread();
    CachePlace *const place =
        std::ranges::find_if(places, [&](CachePlace &each) { return each.claim(self); });
    TraceCache *const cache =
        place != std::end(places) ? place->cache_of_owner(static_cast<size_t>(place - places)) : nullptr;
    if (cache != nullptr)
        cache->start();
    own = cache;
    came_too_late = cache == nullptr;
    errno = kept_errno;
}

TraceCache *TraceCache::take_another_time() {
    if (own == nullptr && !came_too_late)
        claim();
    else if (own != nullptr && own->state == resting && --own->rest == 0)
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
