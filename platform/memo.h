// Traces seen before. A segment remembers what a few steps of a walk read: as long as every slot on the
// stack holds what it held, and the walk comes to the same place with the same pointers, it would read
// the same again and come to the same end, by induction. So the slots are compared, all at once where
// the walk has to wait for each before it knows the next.
//
// Segments are short, since calls mostly differ in the innermost frames: the outer ones are found again
// by what the inner ones lead to. None leads through a signal frame, or through two modules that can be
// unloaded.
#pragma once

#include "stack.h"
#include "unwind_rules.h"

#include <algorithm>
#include <atomic>

namespace k42mc::platform {

// Where a walk stands: the return address into a function, and the two pointers there.
struct Frame {
    uintptr_t place;
    uintptr_t stack_pointer, frame_pointer;
};

// Two words side by side: a saved frame pointer and the return address above it, in many frames.
typedef uintptr_t Pair __attribute__((vector_size(2 * sizeof(uintptr_t))));

inline void load_pair(Pair &pair, uintptr_t address) {
    __builtin_memcpy(&pair, reinterpret_cast<const void *>(address), sizeof pair);
}

struct Segment {
    // The innermost calls change the most. A guard keeps five frames, below those of the wrappers; one
    // more segment holds what the checker keeps.
    static constexpr int innermost_frames = 6, most_frames = 12, most_others = 4;

    Frame start;
    uint32_t module;                 // that has to be in its place, but for those that stay
    uint32_t length;                 // from the stack pointer at the start to the one at the end
    uint32_t frame_pointer_distance; // from there to where the one at the end is saved
    bool needs_frame_pointer;        // a rule used the one at the start
    bool moves_frame_pointer;        // the one at the end is another
    bool is_last;                    // nobody called the last frame
    uint8_t frames;                  // at least one
    uint8_t others;

    uintptr_t places[most_frames]; // that the walk came to
    // Where their return addresses were, with the word below, and which of the two it went by.
    uint32_t distances[most_frames];
    Pair values[most_frames], masks[most_frames];

    // What else it went by: frame pointers saved elsewhere, mostly.
    uint32_t other_distances[most_others];
    uintptr_t other_values[most_others];

    bool starts_at(const Frame &frame) const {
        return start.place == frame.place && start.stack_pointer == frame.stack_pointer &&
               (!needs_frame_pointer || start.frame_pointer == frame.frame_pointer);
    }

    // Whether the walk would go this way again for so many frames.
    bool holds(const Stack &stack, int wanted) const {
        const uintptr_t stack_pointer = start.stack_pointer;
        if (length > stack.high - stack_pointer)
            return false;
        Pair difference = {}, pair;
        for (int i = 0; i < wanted; ++i) {
            load_pair(pair, stack_pointer + distances[i]);
            difference |= (pair ^ values[i]) & masks[i];
        }
        uintptr_t other_difference = difference[0] | difference[1];
        for (int i = 0; i < others; ++i)
            other_difference |= load(stack_pointer + other_distances[i]) ^ other_values[i];
        return other_difference == 0;
    }

    void go(Frame &frame) const {
        if (moves_frame_pointer)
            frame.frame_pointer = load(frame.stack_pointer + frame_pointer_distance);
        frame.stack_pointer += length;
        frame.place = places[frames - 1];
    }
};

// Notes down what a walk reads, for a segment.
class Recorder {
public:
    // The segment is none, which starts nowhere, until it is complete.
    Recorder(Segment &result, const Frame &its_start, int wanted)
        : segment(result), start(its_start), most(wanted) {
        segment.start = {};
        segment.module = staying_module;
        segment.frame_pointer_distance = 0;
        segment.needs_frame_pointer = segment.moves_frame_pointer = segment.is_last = false;
        segment.frames = segment.others = 0;
    }

    bool has_room() const { return segment.frames < most; }

    void applied(UnwindRule rule) {
        if (rule.module == staying_module)
            return;
        is_sound = is_sound && rule.module != unknown_module &&
                   (segment.module == staying_module || segment.module == rule.module);
        segment.module = rule.module;
    }
    void ended() { segment.is_last = true; }

    void used_pointer(const Frame &frame) {
        const uint32_t saved_at = segment.frame_pointer_distance;
        if (!segment.moves_frame_pointer)
            segment.needs_frame_pointer = true;
        else if (segment.frames > 0 && saved_at == segment.distances[segment.frames - 1])
            segment.masks[segment.frames - 1][0] = UINTPTR_MAX;
        else
            depended_on(start.stack_pointer + saved_at, frame.frame_pointer);
    }

    void depended_on(uintptr_t address, uintptr_t value) {
        if (segment.others == Segment::most_others) {
            is_sound = false;
            return;
        }
        segment.other_distances[segment.others] = distance(address);
        segment.other_values[segment.others++] = value;
    }

    void restored_pointer(uintptr_t address) {
        segment.moves_frame_pointer = true;
        segment.frame_pointer_distance = distance(address);
    }

    void returned(uintptr_t address, uintptr_t place) {
        const uint8_t i = segment.frames++;
        segment.places[i] = place;
        segment.distances[i] = distance(address - sizeof(uintptr_t));
        load_pair(segment.values[i], address - sizeof(uintptr_t));
        segment.masks[i] = Pair{0, UINTPTR_MAX};
        segment.length = distance(address + sizeof(uintptr_t));
    }

    void complete() {
        if (is_sound && segment.frames > 0 && is_inside())
            segment.start = start;
    }

private:
    static constexpr uint32_t too_far = UINT32_MAX / 2;

    uint32_t distance(uintptr_t address) const {
        const uintptr_t distance = address - start.stack_pointer;
        return distance < too_far ? static_cast<uint32_t>(distance) : too_far;
    }

    // A damaged stack can lead a walk to words elsewhere, which may not be there any more later. Those
    // of sound frames follow one another.
    bool is_inside() const {
        bool inside = segment.length < too_far && segment.frame_pointer_distance < segment.length;
        for (int i = 0; i < segment.frames; ++i)
            inside = inside && segment.distances[i] < segment.length;
        for (int i = 0; i < segment.others; ++i)
            inside = inside && segment.other_distances[i] < segment.length;
        return inside;
    }

    Segment &segment;
    const Frame start;
    const int most;
    bool is_sound = true;
};

// The segments of one thread.
class Memo {
public:
    // The thread's own. Null while it is in use by what a signal handler has interrupted, or rests
    // because it has been of little use, and for threads that have none.
    static Memo *take() {
        Memo *const memo = own;
        if (!memo || memo->state != available) [[unlikely]]
            return take_another_time();
        memo->state = in_use;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        memo->check = {};
        ++memo->uses;
        return memo;
    }

    void give_back() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        state = available;
    }

    // After a trace of which a part was unknown.
    void give_back_after_miss();

    // The segment by which the walk would go on for so many frames, or to the segment's end.
    const Segment *find(const Frame &frame, const Stack &stack, int wanted) {
        for (const Segment &segment : segments[set_of(frame)])
            if (segment.starts_at(frame) && check.passes(segment.module) &&
                segment.holds(stack, std::min<int>(segment.frames, wanted)))
                return &segment;
        return nullptr;
    }

    // Where to put a segment with this start, in place of an older one.
    Segment &place_for(const Frame &start) {
        const uint32_t set = set_of(start);
        return segments[set][next[set]++ % ways];
    }

    ModuleCheck check; // of the trace in progress

private:
    enum State : uint32_t { available, in_use, resting };

    // With two ways, traces drive each other out where addresses happen to fall so.
    static constexpr uint32_t sets = 16, ways = 4;

    static uint32_t set_of(const Frame &frame) {
        const auto mixed =
            static_cast<uint32_t>(frame.place) + static_cast<uint32_t>(frame.stack_pointer);
        return mixed * 0x9e3779b1u >> 28;
    }

    [[gnu::noinline]] static Memo *take_another_time();
    static void claim();
    void start();

    std::atomic<uint64_t> owner = 0; // process and thread, as the system numbers them
    State state = available;
    uint32_t uses = 0, misses = 0; // of late
    uint32_t rest = 0;             // traces to come that do without
    uint32_t rests = 0;            // in a row, so that each is longer than the one before
    uint8_t next[sets] = {};       // the way to fill
    Segment segments[sets][ways] = {};

    static constinit thread_local Memo *own;
};

} // namespace k42mc::platform
