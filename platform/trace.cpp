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

// Inlined, so that it is compiled for a walk that records and for one that does not.
[[gnu::always_inline]] inline Outcome step(const Stack &stack, Frame &frame, ModuleCheck &check,
                                           Recorder *recorder) {
    const UnwindRule rule = rule_of(frame.pc, check);
    if (recorder)
        recorder->applied(rule);
    const auto distance = static_cast<uintptr_t>(intptr_t{rule.distance});
    uintptr_t cfa, base;
    switch (rule.kind()) {
    case UnwindRule::from_stack_pointer:
        base = cfa = frame.stack_pointer + distance;
        break;
    case UnwindRule::from_frame_pointer:
        if (recorder)
            recorder->used_pointer(frame);
        base = cfa = frame.frame_pointer + distance;
        break;
    case UnwindRule::at_frame_pointer:
        if (recorder)
            recorder->used_pointer(frame);
        base = frame.frame_pointer;
        if (!stack.holds(base + distance))
            return Outcome::ended;
        cfa = load(base + distance);
        if (recorder)
            recorder->depended_on(base + distance, cfa);
        break;
    case UnwindRule::outermost:
        if (recorder)
            recorder->ended();
        return Outcome::ended;
    default:
        return Outcome::unusual;
    }
    const uintptr_t return_slot = cfa - sizeof(uintptr_t);
    if (return_slot < frame.stack_pointer || !stack.holds(return_slot))
        return Outcome::ended;
    if (rule.saves_frame_pointer()) {
        const uintptr_t save = base + static_cast<uintptr_t>(rule.save());
        if (!stack.holds(save))
            return Outcome::ended;
        frame.frame_pointer = load(save);
        if (recorder)
            recorder->restored_pointer(save);
    }
    frame.pc = load(return_slot);
    frame.stack_pointer = cfa;
    if (frame.pc == 0)
        return Outcome::ended;
    if (recorder)
        recorder->returned(return_slot, frame.pc);
    return Outcome::went_on;
}

// A walk in progress: of the frame that it is at, the trace has the pc already.
struct Walk {
    Walk(void **frames, int most, const Frame &start)
        : stack(stack_of(start.stack_pointer)), frame(start), trace(frames, most) {
        trace.add(frame.pc);
    }

    Stack stack;
    Frame frame;
    TraceBuffer trace;
};

[[gnu::noinline, gnu::cold]] int walk_again(void **frames, int most) {
    TraceBuffer trace(frames, most);
    full_walk(trace);
    return most - trace.room();
}

[[gnu::noinline]] int walk(void **frames, int most, Frame start) {
    Walk walk(frames, most, start);
    ModuleCheck check;
    Outcome outcome = Outcome::went_on;
    while (walk.trace.room() > 0 &&
           (outcome = step(walk.stack, walk.frame, check, nullptr)) == Outcome::went_on)
        walk.trace.add(walk.frame.pc);
    return outcome == Outcome::unusual ? walk_again(frames, most) : most - walk.trace.room();
}

[[gnu::noinline]] Outcome walk_new_segment(Walk &walk, TraceCache &cache, int most_frames) {
    const Stack stack = walk.stack;
    Frame frame = walk.frame;
    TraceBuffer trace = walk.trace;
    ModuleCheck check = cache.check;
    Recorder recorder(cache.place_for(frame), cache.next_serial(), frame, trace, most_frames);
    Outcome outcome = Outcome::went_on;
    while (recorder.has_room() && (outcome = step(stack, frame, check, &recorder)) == Outcome::went_on)
        trace.add(frame.pc);
    recorder.complete();
    cache.check = check;
    walk.frame = frame;
    walk.trace = trace;
    return outcome;
}

[[gnu::always_inline]] inline Outcome follow(Walk &walk, const CachedSegment &segment) {
    walk.trace.extend(segment.return_count);
    segment.go(walk.frame);
    return segment.is_last ? Outcome::ended : Outcome::went_on;
}

// Goes on where the cache does not know the way, and by the cache again where it does.
[[gnu::noinline]] int walk_and_learn(void **frames, int most, Walk walk, TraceCache &cache) {
    Outcome outcome;
    int most_frames =
        walk.trace.room() + 1 < most ? CachedSegment::most_frames : CachedSegment::innermost_frames;
    int unknown = 0;
    const auto goes_on = [&] { return outcome == Outcome::went_on && walk.trace.room() > 0; };
    do {
        const int room = walk.trace.room();
        outcome = walk_new_segment(walk, cache, most_frames);
        unknown += room - walk.trace.room();
        most_frames = CachedSegment::most_frames;
        const CachedSegment *segment;
        while (goes_on() && (segment = cache.find(walk.frame, walk.stack.high, walk.trace)))
            outcome = follow(walk, *segment);
    } while (goes_on());
    const int count = most - walk.trace.room();
    cache.release(count, unknown);
    return outcome == Outcome::unusual ? walk_again(frames, most) : count;
}

} // namespace

int backtrace_skip(void **frames, int most) {
    TraceMark unwanted;
    return backtrace_skip(frames, most, unwanted);
}

// The way of a trace that is known whole; others go on in functions of their own, so that it needs few
// registers.
int backtrace_skip(void **frames, int most, TraceMark &mark) {
    mark = {};
    if (most <= 0)
        return 0;
    // A function that asks for its frame's address has a frame pointer.
    const auto base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const Frame start = {load(base + word), base + 2 * word, load(base)};
    TraceCache *const cache = TraceCache::acquire();
    if (!cache)
        return walk(frames, most, start);
    Walk walk(frames, most, start);
    for (int part = 0; walk.trace.room() > 0; ++part) {
        const CachedSegment *segment = cache->find(walk.frame, walk.stack.high, walk.trace);
        if (!segment) {
            mark = {};
            return walk_and_learn(frames, most, walk, *cache);
        }
        if (part < TraceMark::most_parts) [[likely]]
            mark.parts[part] = segment->serial;
        else
            mark = {};
        if (follow(walk, *segment) == Outcome::ended)
            break;
    }
    const int count = most - walk.trace.room();
    cache->release(count);
    return count;
}

} // namespace k42mc::internal::platform
