// Traces seen before. A segment remembers what a few steps of a walk read: as long as every slot on the
// stack holds what it held, and the walk comes to the same place with the same pointers, it would read
// the same again and come to the same end, by induction. So the slots are compared, all at once where
// the walk has to wait for each before it knows the next.
//
// Segments are short, since calls mostly differ in the innermost frames: the outer ones are found again
// by what the inner ones lead to. None holds rules that could change, or a signal frame.
#pragma once

#include "stack.h"
#include "unwind_rules.h"

#include <atomic>

namespace k42mc::platform {

// Where a walk stands: the return address into a function, and the two pointers there.
struct Frame {
    uintptr_t place;
    uintptr_t stack_pointer, frame_pointer;
};

// A word on the stack, by its distance from the stack pointer at the start.
struct Slot {
    uintptr_t distance, value;
};

struct Segment {
    static constexpr uint32_t most_frames = 4, most_others = 6;

    Frame start;
    bool needs_frame_pointer; // a rule used the one at the start
    bool moves_frame_pointer; // the one at the end is another
    bool is_last;             // nobody called the last frame
    uint32_t frames;          // at least one
    uint32_t other_count;
    Slot returns[most_frames];        // the places that the walk came to; the last one in the rest
    Slot others[most_others];         // what else led there: frame pointers, mostly
    uintptr_t frame_pointer_distance; // where the one at the end is saved

    bool starts_at(const Frame &frame) const {
        return start.place == frame.place && start.stack_pointer == frame.stack_pointer &&
               (!needs_frame_pointer || start.frame_pointer == frame.frame_pointer);
    }

    uintptr_t length() const { return returns[most_frames - 1].distance + sizeof(uintptr_t); }

    // Whether the walk would go this way again.
    bool holds(const Stack &stack) const {
        if (length() > stack.high - start.stack_pointer)
            return false;
        uintptr_t difference = 0;
        for (const Slot &slot : returns)
            difference |= load(start.stack_pointer + slot.distance) ^ slot.value;
        for (uint32_t i = 0; i < other_count; ++i)
            difference |= load(start.stack_pointer + others[i].distance) ^ others[i].value;
        return difference == 0;
    }

    void go(Frame &frame) const {
        if (moves_frame_pointer)
            frame.frame_pointer = load(frame.stack_pointer + frame_pointer_distance);
        frame.stack_pointer += length();
        frame.place = returns[most_frames - 1].value;
    }
};

// Notes down what a walk reads, for a segment.
class Recorder {
public:
    explicit Recorder(const Frame &start) { segment.start = start; }

    bool has_room() const { return segment.frames < Segment::most_frames; }

    void applied(UnwindRule rule) { is_sound = is_sound && rule.stays; }
    void ended() { segment.is_last = true; }
    void used_pointer(const Frame &frame) {
        if (!segment.moves_frame_pointer)
            segment.needs_frame_pointer = true;
        else
            depended_on(segment.start.stack_pointer + segment.frame_pointer_distance,
                        frame.frame_pointer);
    }
    void depended_on(uintptr_t address, uintptr_t value) {
        is_sound = is_sound && segment.other_count < Segment::most_others;
        if (is_sound)
            segment.others[segment.other_count++] = slot(address, value);
    }
    void restored_pointer(uintptr_t address) {
        segment.moves_frame_pointer = true;
        segment.frame_pointer_distance = address - segment.start.stack_pointer;
    }
    void returned(uintptr_t address, uintptr_t place) {
        for (uint32_t i = segment.frames; i < Segment::most_frames; ++i)
            segment.returns[i] = slot(address, place);
        ++segment.frames;
    }

    // A damaged stack can lead a walk to slots elsewhere, which may not be there any more later.
    bool is_complete() const {
        bool inside = is_inside(segment.frame_pointer_distance);
        for (uint32_t i = 0; i < segment.other_count; ++i)
            inside = inside && is_inside(segment.others[i].distance);
        return is_sound && inside && segment.frames > 0 && (segment.is_last || !has_room());
    }
    const Segment &result() const { return segment; }

private:
    bool is_inside(uintptr_t distance) const { return distance < segment.length(); }

    Slot slot(uintptr_t address, uintptr_t value) const {
        return {address - segment.start.stack_pointer, value};
    }

    Segment segment{};
    bool is_sound = true;
};

// The segments of a thread, or of several: a segment of one thread's stack is none of another's. Whoever
// finds them in use, a signal handler too, does without.
class Memo {
public:
    // Null where the memo is in use, or has been of little use lately.
    static Memo *borrow(const Stack &stack);
    void give_back(bool was_useful);

    // The segment that the walk would go by.
    const Segment *find(const Frame &frame, const Stack &stack) const {
        for (const Segment &segment : segments[set_of(frame)])
            if (segment.starts_at(frame) && segment.holds(stack))
                return &segment;
        return nullptr;
    }

    void keep(const Segment &segment) {
        const uint32_t set = set_of(segment.start);
        segments[set][next[set]++ % ways] = segment;
    }

private:
    // With two ways, traces drive each other out where addresses happen to fall so.
    static constexpr uint32_t sets = 16, ways = 4;

    static uint32_t set_of(const Frame &frame) {
        const auto mixed =
            static_cast<uint32_t>(frame.place) + static_cast<uint32_t>(frame.stack_pointer);
        return mixed * 0x9e3779b1u >> 28;
    }

    std::atomic<bool> in_use = false;
    std::atomic<uint32_t> rest = 0; // traces to come that do without
    uint32_t rests = 0;             // since the last success, so that each is longer than the one before
    int32_t credit = 0;
    uint8_t next[sets] = {}; // the way to fill
    Segment segments[sets][ways] = {};
};

} // namespace k42mc::platform
