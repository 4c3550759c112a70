// Traces seen before. A segment remembers what a few steps of a walk read: as long as every slot on the
// stack holds what it held, and the walk comes to the same place with the same pointers, it would read
// the same again and come to the same end, by induction. So the slots are compared, none of which
// waits for another, where the walk has to wait for each before it knows the next.
//
// Segments are short, since calls mostly differ in the innermost frames: the outer ones are found again
// by what the inner ones lead to. None leads through a signal frame, or through two modules that can be
// unloaded.
#pragma once

#include "platform/stack.h"
#include "platform/trace_buffer.h"
#include "platform/unwind_rules.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace k42mc::internal::platform {

// Where a walk stands: the return address into a function, and the two pointers there.
struct Frame {
    uintptr_t place;
    uintptr_t stack_pointer, frame_pointer;
};

// Words on the stack, each with the value that it had.
template <int most> struct Slots {
    uint32_t distances[most]; // from the stack pointer at the start
    uintptr_t values[most];

    bool holds(int i, uintptr_t stack_pointer) const {
        return load(stack_pointer + distances[i]) == values[i];
    }
};

struct CachedSegment {
    // The innermost calls change the most. A guard keeps five frames, below those of the wrappers; one
    // more segment holds what the checker keeps.
    static constexpr int innermost_frames = 6, most_frames = 12, most_others = 12;

    Frame start;
    uintptr_t end;                   // the place that it leads to
    uint16_t module;                 // that has to be in its place, but for those that stay
    uint32_t length;                 // from the stack pointer at the start to the one at the end
    uint32_t frame_pointer_distance; // from there to where the one at the end is saved
    bool starts_inside;              // the library's own leading frames go on
    bool needs_frame_pointer;        // a rule used the one at the start
    bool moves_frame_pointer;        // the one at the end is another
    bool is_last;                    // nobody called the last frame
    uint8_t frames;                  // that belong to the trace
    uint8_t others;

    Slots<most_frames> returns; // the return addresses of those frames
    Slots<most_others> other;   // of the library's own, and frame pointers where a rule used them

    bool starts_at(const Frame &frame, const TraceBuffer &chain) const {
        return start.place == frame.place && start.stack_pointer == frame.stack_pointer &&
               (!needs_frame_pointer || start.frame_pointer == frame.frame_pointer) &&
               starts_inside == chain.is_inside() && frames <= chain.room();
    }

    // Whether the walk from there would go this way again. Puts the trace behind the chain all the same.
    [[gnu::always_inline]] bool holds(uintptr_t stack_pointer, uintptr_t stack_end,
                                      void **behind) const {
        if (length > stack_end - stack_pointer)
            return false;
        for (int i = 0; i < others; ++i)
            if (!other.holds(i, stack_pointer))
                return false;
        for (int i = 0; i < frames; ++i) {
            if (!returns.holds(i, stack_pointer))
                return false;
            behind[i] = reinterpret_cast<void *>(returns.values[i]);
        }
        return true;
    }

    void go(Frame &frame) const {
        if (moves_frame_pointer)
            frame.frame_pointer = load(frame.stack_pointer + frame_pointer_distance);
        frame.stack_pointer += length;
        frame.place = end;
    }
};

// Notes down what a walk reads, for a segment.
class Recorder {
public:
    // The segment is none, which starts nowhere, until it is complete.
    Recorder(CachedSegment &result, const Frame &its_start, const TraceBuffer &chain, int most)
        : segment(result), start(its_start), room(chain.room()), steps_left(most),
          inside(chain.is_inside()), end(start.stack_pointer) {
        segment.start = {};
        segment.starts_inside = inside;
        segment.needs_frame_pointer = segment.is_last = false;
    }

    bool has_room() const {
        constexpr int most_others_a_step = 3;
        return steps_left > 0 && frames < room &&
               others + most_others_a_step <= CachedSegment::most_others;
    }

    void applied(UnwindRule rule) {
        if (rule.module == staying_module)
            return;
        is_sound = is_sound && rule.module != unknown_module &&
                   (module == staying_module || module == rule.module);
        module = rule.module;
    }
    void ended() { segment.is_last = true; }

    void used_pointer(const Frame &frame) {
        if (pointer_saved_at == 0)
            segment.needs_frame_pointer = true;
        else if (!std::exchange(pointer_is_noted, true))
            depended_on(pointer_saved_at, frame.frame_pointer);
    }

    void depended_on(uintptr_t address, uintptr_t value) {
        mind(address);
        note(segment.other, others, address, value);
    }

    void restored_pointer(uintptr_t address) {
        mind(address);
        pointer_saved_at = address;
        pointer_is_noted = false;
    }

    void returned(uintptr_t address, uintptr_t place) {
        inside = inside && TraceBuffer::is_own(place);
        if (inside)
            note(segment.other, others, address, place);
        else
            note(segment.returns, frames, address, place);
        segment.end = place;
        end = address + sizeof(uintptr_t);
        --steps_left;
    }

    void complete() {
        if (!is_sound || (end == start.stack_pointer && !segment.is_last) ||
            lowest < start.stack_pointer || highest + sizeof(uintptr_t) > end ||
            end - start.stack_pointer > UINT32_MAX)
            return;
        segment.module = module;
        segment.length = distance(end);
        segment.moves_frame_pointer = pointer_saved_at != 0;
        segment.frame_pointer_distance = distance(pointer_saved_at);
        segment.frames = static_cast<uint8_t>(frames);
        segment.others = static_cast<uint8_t>(others);
        segment.start = start;
    }

private:
    // A damaged stack can lead a walk to words outside its frames, which may be gone later.
    void mind(uintptr_t address) {
        lowest = std::min(lowest, address);
        highest = std::max(highest, address);
    }

    uint32_t distance(uintptr_t address) const {
        return static_cast<uint32_t>(address - start.stack_pointer);
    }

    template <int most> void note(Slots<most> &slots, int &number, uintptr_t address, uintptr_t value) {
        slots.distances[number] = distance(address);
        slots.values[number++] = value;
    }

    CachedSegment &segment;
    const Frame start;
    const int room;
    int steps_left;
    bool inside;
    uintptr_t end; // of the frames so far
    int frames = 0, others = 0;
    uint16_t module = staying_module;
    uintptr_t lowest = UINTPTR_MAX, highest = 0; // of the other words
    uintptr_t pointer_saved_at = 0;
    bool pointer_is_noted = false; // that pointer, as something that the walk went by
    bool is_sound = true;
};

// The segments of one thread.
class TraceCache {
public:
    // The thread's own. Null while it is in use by what a signal handler has interrupted, or rests
    // because it has been of little use, and for threads that have none.
    static TraceCache *acquire() {
        TraceCache *const cache = own;
        if (!cache || cache->state != available) [[unlikely]]
            return take_another_time();
        cache->state = in_use;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        cache->check = {};
        return cache;
    }

    // After a trace that was known.
    void release(int frames) {
        known_frames += static_cast<uint32_t>(frames);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        state = available;
    }

    // After one of which so many frames were unknown.
    void release(int frames, int unknown);

    // The segment by which the walk would go on from there, whose trace is behind the chain then.
    [[gnu::always_inline]] const CachedSegment *find(const Frame &frame, uintptr_t stack_end,
                                                     const TraceBuffer &chain) {
        for (const CachedSegment &segment : segments[set_of(frame)])
            if (segment.starts_at(frame, chain) && check.passes(segment.module) &&
                segment.holds(frame.stack_pointer, stack_end, chain.behind()))
                return &segment;
        return nullptr;
    }

    // Where to put a segment with this start, in place of an older one.
    CachedSegment &place_for(const Frame &start) {
        const uint32_t set = set_of(start);
        return segments[set][next[set]++ % ways];
    }

    ModuleCheck check; // of the trace in progress

private:
    enum State : uint32_t { available, in_use, resting };

    // With two ways, traces drive each other out where addresses happen to fall so. With 16 sets, a
    // trace takes three times as long in a program of many paths, such as sqlite3; with 256, as long.
    static constexpr uint32_t set_bits = 7, sets = 1u << set_bits, ways = 4;

    static uint32_t set_of(const Frame &frame) {
        const auto mixed =
            static_cast<uint32_t>(frame.place) + static_cast<uint32_t>(frame.stack_pointer);
        return mixed * 0x9e3779b1u >> (32 - set_bits);
    }

    [[gnu::noinline]] static TraceCache *take_another_time();
    static void claim();
    void start();

    std::atomic<uint64_t> owner = 0; // process and thread, as the system numbers them
    State state = available;
    uint32_t known_frames = 0, unknown_frames = 0; // of late
    uint32_t rest = 0;                             // traces to come that do without
    uint32_t rests = 0;      // in a row, so that each is longer than the one before
    uint8_t next[sets] = {}; // the way to fill
    CachedSegment segments[sets][ways] = {};

    static constinit thread_local TraceCache *own;
};

} // namespace k42mc::internal::platform
