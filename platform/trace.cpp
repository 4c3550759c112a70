// Walks the stack by the short rules of unwind_rules.h, a look-up and two loads a frame, or by the memo
// of walks before. Every load is checked against the bounds of the stack, and each caller has to lie
// higher than what it called, so that a damaged stack ends the trace. Code without call-frame
// information ends it, too, such as what a compiler has made at run time.
#include "platform.h"

#include "call_chain.h"
#include "full_walk.h"
#include "memo.h"
#include "stack.h"
#include "unwind_rules.h"

namespace k42mc::platform {
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
    const auto distance = static_cast<uintptr_t>(rule.distance());
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

// Room for a trace, and what is in it.
struct Trace {
    void **frames;
    int most;
    CallChain chain;

    int count() const { return most - chain.room(); }
};

[[gnu::noinline, gnu::cold]] int walk_again(void **frames, int most) {
    CallChain chain(frames, most);
    full_walk(chain);
    return most - chain.room();
}

int finish(const Trace &trace, Outcome outcome) {
    return outcome == Outcome::unusual ? walk_again(trace.frames, trace.most) : trace.count();
}

[[gnu::noinline]] int walk(const Stack stack, Frame frame, Trace trace) {
    ModuleCheck check;
    NoNotes none;
    Outcome outcome = Outcome::went_on;
    while (trace.chain.room() > 0 && (outcome = step(stack, frame, check, none)) == Outcome::went_on)
        trace.chain.add(frame.place);
    return finish(trace, outcome);
}

Outcome walk_new_segment(const Stack &stack, Memo &memo, int frames, Frame &frame, CallChain &chain) {
    Recorder recorder(memo.place_for(frame), frame, frames);
    Outcome outcome = Outcome::went_on;
    while (recorder.has_room() &&
           (outcome = step(stack, frame, memo.check, recorder)) == Outcome::went_on)
        chain.add(frame.place);
    recorder.complete();
    return outcome;
}

// Goes on where the memo ends, and back to it where it knows the rest.
[[gnu::noinline]] int walk_and_learn(const Stack stack, Frame frame, Trace trace, Memo &memo,
                                     int most_frames) {
    CallChain &chain = trace.chain;
    Outcome outcome = Outcome::went_on;
    while (chain.room() > 0 && outcome == Outcome::went_on) {
        if (const Segment *segment = memo.find(frame, stack, chain.room())) {
            chain.add(segment->places, segment->frames);
            segment->go(frame);
            outcome = segment->is_last ? Outcome::ended : Outcome::went_on;
        } else {
            outcome = walk_new_segment(stack, memo, std::min(most_frames, chain.room()), frame, chain);
        }
        most_frames = Segment::most_frames;
    }
    memo.give_back_after_miss();
    return finish(trace, outcome);
}

} // namespace

// The way of a trace that is known whole; all others go on in functions of their own, so that it needs
// few registers.
int backtrace_skip(void **frames, int most) {
    if (most <= 0)
        return 0;
    // A function that asks for its frame's address has a frame pointer.
    const auto base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const Stack stack = stack_of(base);
    Frame frame = {load(base + word), base + 2 * word, load(base)};
    Trace trace = {frames, most, CallChain(frames, most)};
    trace.chain.add(frame.place);
    Memo *const memo = Memo::take();
    if (!memo)
        return walk(stack, frame, trace);
    int most_frames = Segment::innermost_frames;
    while (trace.chain.room() > 0) {
        const Segment *segment = memo->find(frame, stack, trace.chain.room());
        if (!segment)
            return walk_and_learn(stack, frame, trace, *memo, most_frames);
        trace.chain.add(segment->places, segment->frames);
        if (segment->is_last)
            break;
        segment->go(frame);
        most_frames = Segment::most_frames;
    }
    memo->give_back();
    return trace.count();
}

} // namespace k42mc::platform
