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
[[gnu::always_inline]] inline Outcome step(const Stack &stack, Frame &frame, Notes &notes) {
    const UnwindRule rule = rule_of(frame.place);
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

Outcome walk(const Stack &stack, Frame frame, CallChain &chain) {
    NoNotes none;
    Outcome outcome = Outcome::went_on;
    while (chain.room() > 0 && (outcome = step(stack, frame, none)) == Outcome::went_on)
        chain.add(frame.place);
    return outcome;
}

// What a walk has come to.
struct Progress {
    Frame frame;
    CallChain chain;
    Outcome outcome;
};

[[gnu::noinline]] void walk_new_segment(const Stack &stack, Memo &memo, int frames, Progress &progress) {
    Recorder recorder(memo.place_for(progress.frame), progress.frame, frames);
    while (recorder.has_room() &&
           (progress.outcome = step(stack, progress.frame, recorder)) == Outcome::went_on)
        progress.chain.add(progress.frame.place);
    recorder.complete();
}

Outcome walk_by_memo(const Stack stack, Frame frame, CallChain &result, Memo &memo) {
    int most_frames = Segment::innermost_frames;
    bool is_known = true;
    CallChain chain = result;
    Outcome outcome = Outcome::went_on;
    while (chain.room() > 0 && outcome == Outcome::went_on) {
        if (const Segment *segment = memo.find(frame, stack, chain.room())) {
            chain.add(segment->places, segment->frames);
            segment->go(frame);
            outcome = segment->is_last ? Outcome::ended : Outcome::went_on;
        } else {
            is_known = false;
            Progress progress = {frame, chain, outcome};
            walk_new_segment(stack, memo, std::min(most_frames, chain.room()), progress);
            frame = progress.frame;
            chain = progress.chain;
            outcome = progress.outcome;
        }
        most_frames = Segment::most_frames;
    }
    memo.give_back(is_known);
    result = chain;
    return outcome;
}

[[gnu::noinline, gnu::cold]] int walk_again(void **frames, int most) {
    CallChain chain(frames, most);
    full_walk(chain);
    return most - chain.room();
}

} // namespace

int backtrace_skip(void **frames, int most) {
    if (most <= 0)
        return 0;
    // A function that asks for its frame's address has a frame pointer.
    const auto base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const Stack stack = stack_of(base);
    const Frame caller = {load(base + word), base + 2 * word, load(base)};
    CallChain chain(frames, most);
    chain.add(caller.place);
    Memo *const memo = Memo::borrow();
    const Outcome outcome =
        memo ? walk_by_memo(stack, caller, chain, *memo) : walk(stack, caller, chain);
    return outcome == Outcome::unusual ? walk_again(frames, most) : most - chain.room();
}

} // namespace k42mc::platform
