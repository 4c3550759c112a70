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
    while (chain.has_room() && (outcome = step(stack, frame, none)) == Outcome::went_on)
        chain.add(frame.place);
    return outcome;
}

// Walks the frames of a segment, also those that do not fit into the chain any more.
[[gnu::noinline]] Outcome walk_new_segment(const Stack &stack, Frame &frame, CallChain &chain,
                                           Memo &memo) {
    Recorder recorder(frame);
    Outcome outcome = Outcome::went_on;
    while (recorder.has_room() && (outcome = step(stack, frame, recorder)) == Outcome::went_on)
        chain.add(frame.place);
    if (recorder.is_complete())
        memo.keep(recorder.result());
    return outcome;
}

Outcome walk_by_memo(const Stack &stack, Frame frame, CallChain &chain, Memo &memo) {
    int known = 0, unknown = 0;
    Outcome outcome = Outcome::went_on;
    while (chain.has_room() && outcome == Outcome::went_on) {
        if (const Segment *segment = memo.find(frame, stack)) {
            ++known;
            for (uint32_t i = 0; i < segment->frames; ++i)
                chain.add(segment->returns[i].value);
            segment->go(frame);
            outcome = segment->is_last ? Outcome::ended : Outcome::went_on;
        } else {
            ++unknown;
            outcome = walk_new_segment(stack, frame, chain, memo);
        }
    }
    memo.give_back(known >= unknown);
    return outcome;
}

[[gnu::noinline, gnu::cold]] int walk_again(void **frames, int most) {
    CallChain chain = {frames, most};
    full_walk(chain);
    return chain.count;
}

} // namespace

int backtrace_skip(void **frames, int most) {
    if (most <= 0)
        return 0;
    // A function that asks for its frame's address has a frame pointer.
    const auto base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const Stack stack = stack_of(base);
    const Frame caller = {load(base + word), base + 2 * word, load(base)};
    CallChain chain = {frames, most};
    chain.add(caller.place);
    Memo *const memo = Memo::borrow(stack);
    const Outcome outcome =
        memo ? walk_by_memo(stack, caller, chain, *memo) : walk(stack, caller, chain);
    return outcome == Outcome::unusual ? walk_again(frames, most) : chain.count;
}

} // namespace k42mc::platform
