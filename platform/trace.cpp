// Walks the stack by the short rules of unwind_rules.h: a look-up and two loads a frame. Every load is
// checked against the bounds of the stack, and each caller has to lie higher than what it called, so
// that a damaged stack ends the trace. Code without call-frame information ends it, too, such as what a
// compiler has made at run time.
#include "platform.h"

#include "call_chain.h"
#include "full_walk.h"
#include "stack.h"
#include "unwind_rules.h"

namespace k42mc::platform {
namespace {

struct Frame {
    uintptr_t place; // the return address into it
    uintptr_t stack_pointer, frame_pointer;
};

enum class Outcome { went_on, ended, unusual };

[[gnu::always_inline]] inline Outcome step(const Stack &stack, Frame &frame) {
    const UnwindRule rule = rule_of(frame.place);
    const auto distance = static_cast<uintptr_t>(rule.distance());
    uintptr_t frame_address, save;
    switch (rule.kind()) {
    case UnwindRule::from_stack_pointer:
        frame_address = frame.stack_pointer + distance;
        save = frame_address;
        break;
    case UnwindRule::from_frame_pointer:
        frame_address = frame.frame_pointer + distance;
        save = frame_address;
        break;
    case UnwindRule::at_frame_pointer:
        if (!stack.holds(frame.frame_pointer + distance))
            return Outcome::ended;
        frame_address = load(frame.frame_pointer + distance);
        save = frame.frame_pointer;
        break;
    case UnwindRule::unusual:
        return Outcome::unusual;
    default:
        return Outcome::ended;
    }
    const uintptr_t return_slot = frame_address - sizeof(uintptr_t);
    if (return_slot < frame.stack_pointer || !stack.holds(return_slot))
        return Outcome::ended;
    if (rule.saves_frame_pointer()) {
        save += static_cast<uintptr_t>(rule.save());
        if (!stack.holds(save))
            return Outcome::ended;
        frame.frame_pointer = load(save);
    }
    frame.place = load(return_slot);
    frame.stack_pointer = frame_address;
    return frame.place == 0 ? Outcome::ended : Outcome::went_on;
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
    Frame frame = {load(base + word), base + 2 * word, load(base)};
    CallChain chain = {frames, most};
    while (chain.add(frame.place)) {
        const Outcome outcome = step(stack, frame);
        if (outcome == Outcome::unusual)
            return walk_again(frames, most);
        if (outcome == Outcome::ended)
            break;
    }
    return chain.count;
}

} // namespace k42mc::platform
