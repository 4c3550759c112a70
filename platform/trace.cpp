// Walks the stack by the short rules of unwind_rules.h, a look-up and two loads a frame, or by the cache
// of walks before. Every load is checked against the bounds of the stack, and each caller has to lie
// higher than what it called, so that a damaged stack ends the trace. Code without call-frame
// information ends it, too, such as what a compiler has made at run time.
#include "platform/platform.h"

#include "platform/full_walk.h"
#include "platform/stack.h"
#include "platform/trace_buffer.h"
#include "platform/trace_cache.h"
#include "platform/unwind_rules.h"

namespace k42mc::internal::platform {
namespace {

enum class Outcome { went_on, ended, unusual };

// Where nobody wants to know.
struct NoNotes {
    void applied(UnwindRule) {}
    void ended() {}
    void used_pointer(const Frame &) {}
    void depended_on(uintptr_t, uintptr_t) {}
    void restored_pointer(uintptr_t) {}
    void returned(uintptr_t, uintptr_t) {}
};

template <class Notes>
[[gnu::always_inline]] inline Outcome step(const Stack &stack, Frame &frame, ModuleCheck &check,
                                           Notes &notes) {
    const UnwindRule rule = rule_of(frame.place, check);
    notes.applied(rule);
    const auto distance = static_cast<uintptr_t>(intptr_t{rule.distance});
    uintptr_t frame_address, base;
    switch (rule.kind()) {
    case UnwindRule::from_stack_pointer:
        base = frame_address = frame.stack_pointer + distance;
        break;
    case UnwindRule::from_frame_pointer:
        notes.used_pointer(frame);
        base = frame_address = frame.frame_pointer + distance;
        break;
    case UnwindRule::at_frame_pointer:
        notes.used_pointer(frame);
        base = frame.frame_pointer;
        if (!stack.holds(base + distance))
            return Outcome::ended;
        frame_address = load(base + distance);
        notes.depended_on(base + distance, frame_address);
        break;
    case UnwindRule::outermost:
        notes.ended();
        return Outcome::ended;
    default:
        return Outcome::unusual;
    }
    const uintptr_t return_slot = frame_address - sizeof(uintptr_t);
    if (return_slot < frame.stack_pointer || !stack.holds(return_slot))
        return Outcome::ended;
    if (rule.saves_frame_pointer()) {
        const uintptr_t save = base + static_cast<uintptr_t>(rule.save());
        if (!stack.holds(save))
            return Outcome::ended;
        frame.frame_pointer = load(save);
        notes.restored_pointer(save);
    }
    frame.place = load(return_slot);
    frame.stack_pointer = frame_address;
    if (frame.place == 0)
        return Outcome::ended;
    notes.returned(return_slot, frame.place);
    return Outcome::went_on;
}

// A walk in progress: of the frame that it is at, the chain has the place already.
struct Walk {
    Walk(void **frames, int most, const Frame &start)
        : stack(stack_of(start.stack_pointer)), frame(start), chain(frames, most) {
        chain.add(frame.place);
    }

    Stack stack;
    Frame frame;
    TraceBuffer chain;
};

[[gnu::noinline, gnu::cold]] int walk_again(void **frames, int most) {
    TraceBuffer chain(frames, most);
    full_walk(chain);
    return most - chain.room();
}

[[gnu::noinline]] int walk(void **frames, int most, Frame start) {
    Walk walk(frames, most, start);
    ModuleCheck check;
    NoNotes none;
    Outcome outcome = Outcome::went_on;
    while (walk.chain.room() > 0 &&
           (outcome = step(walk.stack, walk.frame, check, none)) == Outcome::went_on)
        walk.chain.add(walk.frame.place);
    return outcome == Outcome::unusual ? walk_again(frames, most) : most - walk.chain.room();
}

[[gnu::noinline]] Outcome walk_new_segment(Walk &walk, TraceCache &cache, int most_frames) {
    const Stack stack = walk.stack;
    Frame frame = walk.frame;
    TraceBuffer chain = walk.chain;
    ModuleCheck check = cache.check;
    Recorder recorder(cache.place_for(frame), frame, chain, most_frames);
    Outcome outcome = Outcome::went_on;
    while (recorder.has_room() && (outcome = step(stack, frame, check, recorder)) == Outcome::went_on)
        chain.add(frame.place);
    recorder.complete();
    cache.check = check;
    walk.frame = frame;
    walk.chain = chain;
    return outcome;
}

[[gnu::always_inline]] inline Outcome follow(Walk &walk, const CachedSegment &segment) {
    walk.chain.extend(segment.frames);
    segment.go(walk.frame);
    return segment.is_last ? Outcome::ended : Outcome::went_on;
}

// Goes on where the cache does not know the way, and by the cache again where it does.
[[gnu::noinline]] int walk_and_learn(void **frames, int most, Walk walk, TraceCache &cache) {
    Outcome outcome;
    int most_frames =
        walk.chain.room() + 1 < most ? CachedSegment::most_frames : CachedSegment::innermost_frames;
    int unknown = 0;
    const auto goes_on = [&] { return outcome == Outcome::went_on && walk.chain.room() > 0; };
    do {
        const int room = walk.chain.room();
        outcome = walk_new_segment(walk, cache, most_frames);
        unknown += room - walk.chain.room();
        most_frames = CachedSegment::most_frames;
        const CachedSegment *segment;
        while (goes_on() && (segment = cache.find(walk.frame, walk.stack.high, walk.chain)))
            outcome = follow(walk, *segment);
    } while (goes_on());
    const int count = most - walk.chain.room();
    cache.release(count, unknown);
    return outcome == Outcome::unusual ? walk_again(frames, most) : count;
}

} // namespace

// The way of a trace that is known whole; others go on in functions of their own, so that it needs few
// registers.
int backtrace_skip(void **frames, int most) {
    if (most <= 0)
        return 0;
    // A function that asks for its frame's address has a frame pointer.
    const auto base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const Frame start = {load(base + word), base + 2 * word, load(base)};
    TraceCache *const cache = TraceCache::acquire();
    if (!cache)
        return walk(frames, most, start);
    Walk walk(frames, most, start);
    while (walk.chain.room() > 0) {
        const CachedSegment *segment = cache->find(walk.frame, walk.stack.high, walk.chain);
        if (!segment)
            return walk_and_learn(frames, most, walk, *cache);
        if (follow(walk, *segment) == Outcome::ended)
            break;
    }
    const int count = most - walk.chain.room();
    cache->release(count);
    return count;
}

} // namespace k42mc::internal::platform
