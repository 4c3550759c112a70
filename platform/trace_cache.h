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
#include <bit>
#include <cstddef>
#include <utility>

namespace k42mc::internal::platform {

// Where a walk stands: the return address into a function, and the two pointers there.
struct Frame {
    uintptr_t pc;
    uintptr_t stack_pointer, frame_pointer;
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
// Slots are words on the stack, each with the value that it had: first those of return addresses that
// belong to the trace, then the others, among them the return addresses of the library's own leading
// frames. It holds that:
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
// 7. No other segment has, or had, the same serial number, of whatever thread. So it stands for the part of
//    a trace.
struct CachedSegment {
    // The innermost calls change the most. A guard keeps five frames, below those of the wrappers; one
    // more segment holds what the checker keeps.
    static constexpr int innermost_frames = 6, most_frames = 12, most_slots = 20;
    // Of slots, from the stack pointer at the start; counted in words, as the next ones are.
    static constexpr uintptr_t most_distance = UINT16_MAX;

    Frame start;
    uintptr_t end_pc;
    uint64_t serial;
    uint32_t length;                 // in bytes
    uint16_t frame_pointer_distance; // to where the next frame's is saved
    uint16_t module;                 // that has to be in its place, but for those that stay
    bool starts_inside;              // the library's own leading frames go on
    bool needs_frame_pointer;
    bool moves_frame_pointer; // the next frame's is another
    bool is_last;             // nobody called the last frame
    uint8_t return_count;     // of frames that belong to the trace
    uint8_t slot_count;
    uint16_t distances[most_slots];
    uintptr_t values[most_slots];

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
        for (int i = return_count; i < slot_count; ++i)
            if (!slot_holds(i, stack_pointer))
                return false;
        for (int i = 0; i < return_count; ++i) {
            if (!slot_holds(i, stack_pointer))
                return false;
            behind[i] = reinterpret_cast<void *>(values[i]);
        }
        return true;
    }

    bool slot_holds(int i, uintptr_t stack_pointer) const {
        return load(stack_pointer + distances[i] * word) == values[i];
    }

    void go(Frame &frame) const {
        if (moves_frame_pointer)
            frame.frame_pointer = load(frame.stack_pointer + frame_pointer_distance * word);
        frame.stack_pointer += length;
        frame.pc = end_pc;
    }
};

// Notes down what a walk reads, for a segment; the invariants are those of CachedSegment.
class Recorder {
public:
    // The segment is none until it is complete (6).
    Recorder(CachedSegment &result, uint64_t its_serial, const Frame &its_start,
             const TraceBuffer &trace, int most)
        : segment(result), serial(its_serial), start(its_start), room(trace.room()), steps_left(most),
          inside(trace.is_inside()), end(start.stack_pointer) {
        segment.start = {};
        segment.starts_inside = inside;
        segment.needs_frame_pointer = segment.is_last = false;
    }

    bool has_room() const {
        constexpr int most_slots_a_step = 3;
        return steps_left > 0 && frames < room &&
               frames + others + most_slots_a_step <= CachedSegment::most_slots;
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
        note_other(address, value);
    }

    void restored_pointer(uintptr_t address) {
        mind(address);
        pointer_saved_at = address;
        pointer_is_noted = false;
    }

    void returned(uintptr_t address, uintptr_t pc) {
        inside = inside && TraceBuffer::is_own(pc);
        if (inside) {
            note_other(address, pc);
        } else {
            put(frames++, {address, pc});
            --steps_left;
        }
        segment.end_pc = pc;
        end = address + word;
        const uintptr_t length = end - start.stack_pointer;
        if (length > CachedSegment::most_distance * word || length % word != 0)
            give_up();
    }

    // Makes a segment of it, if that would be sound (4, 5, 1).
    void complete() {
        if (!is_sound || (end == start.stack_pointer && !segment.is_last) ||
            lowest < start.stack_pointer || highest + word > end)
            return;
        for (int i = 0; i < others; ++i)
            put(frames + i, other_slots[i]);
        segment.module = module;
        segment.length = static_cast<uint32_t>(end - start.stack_pointer);
        segment.moves_frame_pointer = pointer_saved_at != 0;
        if (segment.moves_frame_pointer)
            segment.frame_pointer_distance = distance(pointer_saved_at);
        segment.return_count = static_cast<uint8_t>(frames);
        segment.slot_count = static_cast<uint8_t>(frames + others);
        segment.serial = serial;
        segment.start = start;
    }

private:
    struct Slot {
        uintptr_t address, value;
    };

    // A damaged stack can lead a walk to words outside its frames, which may be gone later.
    void mind(uintptr_t address) {
        lowest = std::min(lowest, address);
        highest = std::max(highest, address);
        is_sound = is_sound && (address - start.stack_pointer) % word == 0;
    }

    // The walk ends here, and whoever goes on does so in another segment.
    void give_up() {
        is_sound = false;
        steps_left = 0;
    }

    uint16_t distance(uintptr_t address) const {
        return static_cast<uint16_t>((address - start.stack_pointer) / word);
    }

    void note_other(uintptr_t address, uintptr_t value) { other_slots[others++] = {address, value}; }

    void put(int number, Slot slot) {
        segment.distances[number] = distance(slot.address);
        segment.values[number] = slot.value;
    }

    CachedSegment &segment;
    const uint64_t serial; // (7)
    const Frame start;
    const int room;
    int steps_left;
    bool inside;
    uintptr_t end; // of the frames so far
    int frames = 0, others = 0;
    Slot other_slots[CachedSegment::most_slots] = {};
    uint16_t module = staying_module;
    uintptr_t lowest = UINTPTR_MAX, highest = 0; // of the other words
    uintptr_t pointer_saved_at = 0;
    bool pointer_is_noted = false; // that pointer, as something that the walk went by
    bool is_sound = true;
};

// The segments of one thread. Made of zeros, but for a first serial number of its own.
class TraceCache {
public:
    // For so many threads at a time.
    static constexpr size_t most = 64;

    // All that is kept of stacks: those up to the most there can be, null for none.
    static const TraceCache *number(size_t i);

    // For the one with that number, once.
    void begin_serials(size_t i) { last_serial = uint64_t{i} << (64 - std::bit_width(most)); }

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

    uint64_t next_serial() { return ++last_serial; }

    ModuleCheck check; // of the trace in progress

private:
    enum State : uint32_t { available, in_use, resting };

    // With two ways, traces drive each other out where addresses happen to fall so. An interpreter that calls
    // itself, such as bash, walks half of its traces anew with 128 sets, a fifth with 512. Only what is used
    // takes memory.
    static constexpr uint32_t set_bits = 10, sets = 1u << set_bits, ways = 4;

    static uint32_t set_of(const Frame &frame) {
        const auto mixed = static_cast<uint32_t>(frame.pc) + static_cast<uint32_t>(frame.stack_pointer);
        return mixed * 0x9e3779b1u >> (32 - set_bits);
    }

    [[gnu::noinline]] static TraceCache *take_another_time();
    static void claim();
    void start();

    State state;
    uint64_t last_serial;                  // goes on with the next thread
    uint32_t known_frames, unknown_frames; // of late
    uint32_t rest;                         // traces to come that do without
    uint32_t rests;                        // in a row, so that each is longer than the one before
    uint8_t next[sets];                    // the way to fill
    CachedSegment segments[sets][ways];

    static constinit thread_local bool came_too_late; // for one
    static constinit thread_local TraceCache *own;
};

} // namespace k42mc::internal::platform
