// Guarded blocks, as the wrappers use them. guard.h describes the layout.
#pragma once

#include "linkage/linkage.h"
#include "platform/prefetch.h"
#include "stack_trace.h"

#include <array>

namespace k42mc::internal {

// Pages are at least as large: what can be read of one can be read to its end.
inline constexpr uintptr_t smallest_page = 4096;

// The frames that a block's own guards have room for, innermost first; zeros behind the last.
using GuardTrace = std::array<uintptr_t, K42MC_GUARD_TRACE>;

// What is known of a block before its guards are examined. What is not known to be readable is probed
// first, at the price of a system call.
struct KnownBlock {
    bool header_readable; // false: a pointer from anywhere
    uint32_t site = 0; // what the registry calls its allocation, for who explains a defect; 0: nothing
    uintptr_t tail;    // where the registry expects the tail, which is readable then; 0: no idea
};

// Both guards of a block will be looked at: they are on their way from memory while other things are done.
inline void expect_guard(uintptr_t guard) {
    platform::prefetch(guard);
    platform::prefetch(guard + K42MC_GUARD_OVERHEAD / 2 - 1);
}
inline void expect_release(const void *user) {
    expect_guard(reinterpret_cast<uintptr_t>(user) - K42MC_GUARD_OVERHEAD / 2);
}
inline void expect_tail(const KnownBlock &known) {
    expect_guard(known.tail);
}

// A block whose guards were found sound.
struct ReleasedBlock {
    void *raw;
    size_t raw_size;
    size_t user_size;
    uint32_t alignment; // 1 for none
};

// What is wrong with a block, in the terms of the defect line.
struct Defect {
    int code = K42MC_DEFECT_NONE;
    uintptr_t arena = K42MC_ARENA_UNKNOWN; // that the block was allocated in
    uintptr_t size = 0;
    GuardTrace trace{};
};

// A release that stops the process.
struct Stop {
    Defect defect;
    uint32_t arena; // that the block was to go back to
    const void *user;
    KnownBlock known;
};

// Called between the defect line and the abort. Null for nobody.
using StopListener = void (*)(const Stop &stop);

[[noreturn]] void stop_process(const Stop &stop, StopListener listener);

// Its end, for whoever has said the rest.
[[noreturn]] void stop_here();

// As k42mc_guard_alloc, with a trace that was captured before.
void *guard_alloc(uint32_t arena, uint32_t alignment, void *raw, size_t raw_size,
                  const StackTrace &trace);

// As k42mc_guard_free, and tells what the block's header said before it was marked as freed: the trace of the
// allocation, too, where somebody wants it.
ReleasedBlock guard_release(uint32_t arena, void *user, KnownBlock known, StopListener listener,
                            GuardTrace *allocation = nullptr);

// Whether the guards of a block are as its release has left them, but for the trace in them. Else puts where the first
// byte lies that is not, from the user pointer. Both guards must be readable.
bool has_freed_guards(uint32_t arena, const void *user, size_t size, ptrdiff_t &change);

// What the tail of a freed block says.
GuardTrace release_trace_of(const void *user, size_t size);

// An access to a block's memory that the block did not allow.
struct BadAccess {
    const char *code; // of the defect line
    uint32_t arena;
    const void *user;
    size_t size;
    ptrdiff_t offset; // of the access, from the user pointer
    GuardTrace allocation;
};

// Prints the defect line. What the process has buffered is the caller's to flush: it may be a signal handler.
void print_bad_access(const BadAccess &access);

// What the words ahead of a block of anybody's say: where guarded blocks and the system allocator's meet.
// The block itself must be readable.
enum class BlockState { none, live, freed };
BlockState state_of(const void *user);

// The same for a pointer from anywhere.
BlockState probed_state_of(const void *user);

// Whether header or tail are those of a live block of this size. Looks before it reads.
bool has_guards(const void *user, size_t size);

// The user size that a sound header implies; false when the header is none. Reads only the header, which
// must be readable.
bool guarded_size(const void *user, size_t *size);

// What the underlying allocator has handed out for a block, by a copy of its header; of no size where that is none.
struct RawMemory {
    uintptr_t begin, size;
};
RawMemory raw_memory_of(uintptr_t user, const uintptr_t (&header)[K42MC_GUARD_WORDS]);

// The defect of a block that is live: K42MC_DEFECT_NONE, _WO or _WU. Header and tail, as the registry's
// size implies it, must be readable. A block whose memory was released past the registry or never had
// guards has no defect.
int live_defect(uint32_t arena, const void *user, size_t size);

} // namespace k42mc::internal
