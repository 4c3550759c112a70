// Traces seen before. A segment remembers what a few steps of a walk read: as long as every slot on the
// stack holds what it held, and the walk comes to the same pc with the same pointers, it would read the
// same again and come to the same end, by induction. So the slots are compared, none of which waits for
// another, where the walk has to wait for each before it knows the next.
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
#include <cstddef>
#include <span>
#include <utility>

namespace k42mc::internal::platform {

// Where a walk stands: the return address into a function, and the two pointers there.
struct Frame {
    uintptr_t pc;
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

// A segment of two steps, on a stack that grows down:
//
//       |                     |
//       +---------------------+ <- the next frame's stack pointer     = start.stack_pointer + length
//       | return address      |    end_pc, the next frame's pc        returns
//       | frame pointer       |    the next frame's, just loaded      frame_pointer_distance
//       | locals              |
//       +---------------------+
//       | return address      |    of the function between            returns
//       | frame pointer       |    where a rule went by it            others
//       | locals              |
//       +---------------------+ <- start.stack_pointer                distances count from here
//
// The return addresses of the library's own leading frames, which are no part of the trace, are among
// the others. It holds that:
//
// 1. All slots lie between the two stack pointers. So one comparison with the end of the stack says that
//    all can be read.
// 2. The slots are all the words that the steps went by: each return address, each frame pointer that a
//    rule used after it was restored, each address that a rule loaded. The last frame pointer restored
//    is none, unless a rule used it; the next frame takes it from the stack.
// 3. With the start's pc and stack pointer, and its frame pointer where needs_frame_pointer says that a
//    rule used that, the slots decide everything else here.
// 4. All rules came from modules that stay, and from one that may go, at most: `module`.
// 5. It leads on: length is above 0, unless nobody called the last frame.
// 6. A segment that is being recorded, or was given up, starts at pc 0, where no walk comes.
struct CachedSegment {
    // The innermost calls change the most. A guard keeps five frames, below those of the wrappers; one
    // more segment holds what the checker keeps.
    static constexpr int innermost_frames = 6, most_frames = 12, most_others = 12;

    Frame start;
    uintptr_t end_pc;
    uint16_t module;                 // that has to be in its place, but for those that stay
    uint32_t length;                 // in bytes
    uint32_t frame_pointer_distance; // to where the next frame's is saved
    bool starts_inside;              // the library's own leading frames go on
    bool needs_frame_pointer;
    bool moves_frame_pointer; // the next frame's is another
    bool is_last;             // nobody called the last frame
    uint8_t return_count;     // of frames that belong to the trace
    uint8_t other_count;

    Slots<most_frames> returns;
    Slots<most_others> others;

    bool starts_at(const Frame &frame, const TraceBuffer &trace) const {
        return start.pc == frame.pc && start.stack_pointer == frame.stack_pointer &&
               (!needs_frame_pointer || start.frame_pointer == frame.frame_pointer) &&
               starts_inside == trace.is_inside() && return_count <= trace.room();
    }

    // Whether the walk from there would go this way again. Puts the trace behind the trace all the same.
    [[gnu::always_inline]] bool holds(uintptr_t stack_pointer, uintptr_t stack_end,
                                      void **behind) const {
        if (length > stack_end - stack_pointer)
            return false;
        for (int i = 0; i < other_count; ++i)
            if (!others.holds(i, stack_pointer))
                return false;
        for (int i = 0; i < return_count; ++i) {
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
        frame.pc = end_pc;
    }
};

// Notes down what a walk reads, for a segment; the invariants are those of CachedSegment.
class Recorder {
public:
    // The segment is none until it is complete (6).
    Recorder(CachedSegment &result, const Frame &its_start, const TraceBuffer &trace, int most)
        : segment(result), start(its_start), room(trace.room()), steps_left(most),
          inside(trace.is_inside()), end(start.stack_pointer) {
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

    // (2, 3)
    void used_pointer(const Frame &frame) {
        if (pointer_saved_at == 0)
            segment.needs_frame_pointer = true;
        else if (!std::exchange(pointer_is_noted, true))
            depended_on(pointer_saved_at, frame.frame_pointer);
    }

    void depended_on(uintptr_t address, uintptr_t value) {
        mind(address);
        note(segment.others, others, address, value);
    }

    void restored_pointer(uintptr_t address) {
        mind(address);
        pointer_saved_at = address;
        pointer_is_noted = false;
    }

    void returned(uintptr_t address, uintptr_t pc) {
        inside = inside && TraceBuffer::is_own(pc);
        if (inside)
            note(segment.others, others, address, pc);
        else
            note(segment.returns, frames, address, pc);
        segment.end_pc = pc;
        end = address + sizeof(uintptr_t);
        --steps_left;
    }

    // Makes a segment of it, if that would be sound (4, 5, 1).
    void complete() {
        if (!is_sound || (end == start.stack_pointer && !segment.is_last) ||
            lowest < start.stack_pointer || highest + sizeof(uintptr_t) > end ||
            end - start.stack_pointer > UINT32_MAX)
            return;
        segment.module = module;
        segment.length = distance(end);
        segment.moves_frame_pointer = pointer_saved_at != 0;
        segment.frame_pointer_distance = distance(pointer_saved_at);
        segment.return_count = static_cast<uint8_t>(frames);
        segment.other_count = static_cast<uint8_t>(others);
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
    // All that is kept of stacks.
    static std::span<const std::byte> memory();

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

    // The segment by which the walk would go on from there, whose trace is behind the trace then.
    [[gnu::always_inline]] const CachedSegment *find(const Frame &frame, uintptr_t stack_end,
                                                     const TraceBuffer &trace) {
        for (const CachedSegment &segment : segments[set_of(frame)])
            if (segment.starts_at(frame, trace) && check.passes(segment.module) &&
                segment.holds(frame.stack_pointer, stack_end, trace.behind()))
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
        const auto mixed = static_cast<uint32_t>(frame.pc) + static_cast<uint32_t>(frame.stack_pointer);
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
