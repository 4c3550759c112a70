#include "k42mc_debug.h"

#include <algorithm>
#include <bit>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

constexpr unsigned char k42mc_head_alloc_guard[32] = {
    0xa7, 0x65, 0xbf, 0x95, 0x89, 0xe5, 0xad, 0xc7, 0x61, 0x71, 0xf1, 0xdf, 0xa3, 0x6d, 0x97, 0xc5,
    0xb5, 0xe9, 0x6b, 0x8b, 0x59, 0x9d, 0x53, 0xc1, 0xef, 0x7f, 0x83, 0xe3, 0xb3, 0xfb, 0x67, 0xd3};
constexpr unsigned char k42mc_tail_alloc_guard[32] = {
    0xbf, 0x65, 0x95, 0xa7, 0xad, 0xe5, 0xc7, 0x89, 0xf1, 0x71, 0xdf, 0x61, 0x97, 0x6d, 0xc5, 0xa3,
    0x6b, 0xe9, 0x8b, 0xb5, 0x53, 0x9d, 0xc1, 0x59, 0x83, 0x7f, 0xe3, 0xef, 0x67, 0xfb, 0xd3, 0xb3};
constexpr unsigned char k42mc_free_guard[32] = {
    0x65, 0x61, 0x59, 0x53, 0x71, 0x6d, 0x6b, 0x67, 0x8b, 0x89, 0x83, 0x7f, 0xa3, 0x9d, 0x97, 0x95,
    0xb5, 0xb3, 0xad, 0xa7, 0xc7, 0xc5, 0xc1, 0xbf, 0xe5, 0xe3, 0xdf, 0xd3, 0x00, 0x00, 0x00, 0x00};

constexpr const char *const k42mc_arena_desc[K42MC_ARENAS] = {"UNKNOWN", "STD", "SYS",
                                                              "FIX",     "VAR", "SHM"};
constexpr const char *const k42mc_defect_desc[K42MC_DEFECTS] = {"NONE", "BF", "DF", "WO", "WU"};

constinit char k42mc_panic_string[256] = "";

namespace k42mc::internal {
namespace {

// Header and tail may lie at any address once somebody passes a wild pointer, the tail always.
struct [[gnu::packed, gnu::may_alias]] Word {
    uintptr_t value;
};

constexpr int word_bits = 8 * sizeof(uintptr_t);
constexpr uintptr_t guard_bytes = K42MC_GUARD_WORDS * sizeof(uintptr_t); // of a header, and of a tail

// Words of a header.
constexpr int magic_word = 0;
constexpr int trace_word = 1;
constexpr int alignment_word = 6;
constexpr int raw_size_word = 7;
constexpr int freed_tail_word = 7; // in a freed header
// Words of a tail.
constexpr int freed_trace_word = 2;
constexpr int arena_word = 7;

// The alignment word: log2 of the alignment on top, the header's offset below.
constexpr int log2_shift = word_bits - 5;
constexpr uintptr_t offset_mask = (uintptr_t{1} << log2_shift) - 1;
constexpr int largest_log2 = std::countr_zero(unsigned{K42MC_ALIGN_MAX});

// The 28 bytes that mark seven words: as often over as the words are wide.
constexpr int marked_words = 7;
constexpr int marked_bytes = 28;

constexpr uintptr_t pattern_word(const unsigned char (&pattern)[32], int word) {
    uintptr_t value = 0;
    for (int byte = sizeof(uintptr_t); byte-- > 0;) {
        const size_t at =
            (static_cast<size_t>(word) * sizeof(uintptr_t) + static_cast<size_t>(byte)) % marked_bytes;
        value = value << 8 | pattern[at];
    }
    return value;
}

constexpr std::array<uintptr_t, marked_words> pattern_words(const unsigned char (&pattern)[32]) {
    std::array<uintptr_t, marked_words> words{};
    for (int i = 0; i < marked_words; ++i)
        words[static_cast<size_t>(i)] = pattern_word(pattern, i);
    return words;
}

constexpr uintptr_t magic = pattern_word(k42mc_head_alloc_guard, 0);
constexpr auto tail_words = pattern_words(k42mc_tail_alloc_guard);
constexpr auto free_words = pattern_words(k42mc_free_guard);

static_assert(K42MC_GUARD_OVERHEAD == 2 * guard_bytes);
static_assert(sizeof(void *) != 4 || (magic == 0x95bf65a7u && K42MC_GUARD_OVERHEAD == 64));

uintptr_t address_of(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

void *pointer_to(uintptr_t address) {
    return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr)
}

Word *words_at(uintptr_t address) {
    return static_cast<Word *>(pointer_to(address));
}

// Where the parts of a block lie.
struct Layout {
    uintptr_t raw;
    uintptr_t tail;
    uintptr_t raw_size;
    int log2_alignment;
};

void store_trace(Word *words, std::span<void *const> frames) {
    if (frames.size() == K42MC_GUARD_TRACE) [[likely]] {
        __builtin_memcpy(words, frames.data(), K42MC_GUARD_TRACE * sizeof *words);
        return;
    }
    for (size_t i = 0; i < K42MC_GUARD_TRACE; ++i)
        words[i].value = i < frames.size() ? address_of(frames[i]) : 0;
}

GuardTrace load_trace(const Word *words) {
    GuardTrace trace;
    for (size_t i = 0; i < trace.size(); ++i)
        trace[i] = words[i].value;
    return trace;
}

template <size_t count>
void store_pattern(Word *words, const std::array<uintptr_t, marked_words> &pattern) {
    __builtin_memcpy(words, pattern.data(), count * sizeof *words);
}

bool carries_pattern(const Word *words, const std::array<uintptr_t, marked_words> &pattern) {
    uintptr_t difference = 0;
#pragma GCC unroll marked_words
    for (size_t i = 0; i < marked_words; ++i)
        difference |= words[i].value ^ pattern[i];
    return difference == 0;
}

// Whoever got the memory next may have written over some words of a freed header, so one is enough.
bool was_freed(const Word *header) {
    for (size_t i = 0; i < free_words.size(); ++i) {
        if (header[i].value == free_words[i])
            return true;
    }
    return false;
}

uintptr_t known_arena(uintptr_t arena) {
    return arena < K42MC_ARENAS ? arena : uintptr_t{K42MC_ARENA_UNKNOWN};
}

uintptr_t distance(uintptr_t user, uintptr_t tail) {
    return tail > user ? tail - user : 0;
}

Defect underflow(const Word *header, uintptr_t size) {
    return {K42MC_DEFECT_WU, K42MC_ARENA_UNKNOWN, size, load_trace(header + trace_word)};
}

// The header remembers the tail's address, but the memory may have had another owner since.
Defect double_free(const Word *header, uintptr_t user) {
    const uintptr_t tail = header[freed_tail_word].value;
    if (tail < user || !platform::readable(pointer_to(tail), guard_bytes))
        return {.code = K42MC_DEFECT_DF};
    const Word *words = words_at(tail);
    return {K42MC_DEFECT_DF, known_arena(words[arena_word].value), distance(user, tail),
            load_trace(words + freed_trace_word)};
}

bool decode_header(const Word *header, uintptr_t at, Layout &layout) {
    const uintptr_t word = header[alignment_word].value;
    const uintptr_t offset = word & offset_mask;
    layout.log2_alignment = static_cast<int>(word >> log2_shift);
    if (layout.log2_alignment > largest_log2)
        return false;
    const uintptr_t alignment = uintptr_t{1} << layout.log2_alignment;
    if (offset > alignment - 1)
        return false;
    layout.raw_size = header[raw_size_word].value;
    layout.raw = at - offset;
    layout.tail = at - alignment + layout.raw_size - (guard_bytes - 1);
    return true;
}

// Of memory that is looked at on the way of every release: errno keeps its value.
bool probe(uintptr_t address) {
    const int saved_errno = errno;
    const bool readable = platform::readable(pointer_to(address), guard_bytes);
    errno = saved_errno;
    return readable;
}

// An underrun damages the raw size before anything else, and may put the tail anywhere. In the page
// where the header ends, which was read already, no probe is needed; nor where the registry expects the
// tail.
bool tail_readable(uintptr_t user, uintptr_t tail, KnownBlock known) {
    if (tail == known.tail || (tail + guard_bytes - 1) / smallest_page == (user - 1) / smallest_page)
        return true;
    return probe(tail);
}

Defect examine(uint32_t arena, uintptr_t user, KnownBlock known, Layout &layout) {
    const Word *header = words_at(user - guard_bytes);
    if (!known.header_readable && !probe(address_of(header)))
        return {.code = K42MC_DEFECT_WU};
    if (header[magic_word].value != magic)
        return was_freed(header) ? double_free(header, user) : underflow(header, 0);
    if (!decode_header(header, address_of(header), layout))
        return underflow(header, 0);
    const uintptr_t size = distance(user, layout.tail);
    if (user < layout.raw + guard_bytes || user > layout.tail ||
        !tail_readable(user, layout.tail, known))
        return underflow(header, size);
    const Word *tail = words_at(layout.tail);
    if (!carries_pattern(tail, tail_words))
        return {K42MC_DEFECT_WO, K42MC_ARENA_UNKNOWN, size, load_trace(header + trace_word)};
    if (tail[arena_word].value != arena)
        return {K42MC_DEFECT_BF, known_arena(tail[arena_word].value), size,
                load_trace(header + trace_word)};
    return {};
}

// Appends to the panic string. `length` counts what the text would have been in full: once it is past
// the room, nothing more is added.
[[gnu::format(printf, 2, 3)]] void append(size_t &length, const char *format, ...) {
    constexpr size_t room = sizeof k42mc_panic_string;
    if (length >= room)
        return;
    va_list arguments;
    va_start(arguments, format);
    length +=
        static_cast<size_t>(vsnprintf(k42mc_panic_string + length, room - length, format, arguments));
    va_end(arguments);
}

void append_trace(size_t &length, const GuardTrace &trace) {
    append(length, " trace buffer:");
    for (const uintptr_t frame : trace)
        append(length, " %#lx", static_cast<unsigned long>(frame));
}

void describe(const Stop &stop) {
    const Defect &defect = stop.defect;
    size_t length = 0;
    append(length, "k42mc detected %s: alloc(%s) free(%s) usrPtr(%p) usrSize(%zu)",
           k42mc_defect_desc[defect.code], k42mc_arena_desc[defect.arena],
           k42mc_arena_desc[known_arena(stop.arena)], stop.user, static_cast<size_t>(defect.size));
    append_trace(length, defect.trace);
}

void describe(const BadAccess &access) {
    size_t length = 0;
    append(length, "k42mc detected %s: alloc(%s) usrPtr(%p) usrSize(%zu) access(%p%+td)", access.code,
           k42mc_arena_desc[known_arena(access.arena)], access.user, access.size, access.user,
           access.offset);
    append_trace(length, access.allocation);
}

// Past the stream's buffer, so that nothing is allocated for it in a process whose heap is damaged.
void write_panic_string() {
    char line[sizeof k42mc_panic_string + 2];
    const auto length = static_cast<size_t>(snprintf(line, sizeof line, "%s\r\n", k42mc_panic_string));
    const int descriptor = fileno_unlocked(stdout);
    if (descriptor >= 0) {
        platform::write_all(descriptor, line, length);
    } else {
        fputs(line, stdout);
        fflush(stdout);
    }
}

void mark_as_freed(uintptr_t user, const Layout &layout) {
    StackTrace trace;
    trace.capture(K42MC_GUARD_TRACE);
    Word *header = words_at(user - guard_bytes);
    store_pattern<marked_words>(header, free_words);
    header[freed_tail_word].value = layout.tail;
    Word *tail = words_at(layout.tail);
    store_pattern<freed_trace_word>(tail, free_words);
    store_trace(tail + freed_trace_word, trace.innermost(K42MC_GUARD_TRACE));
}

// Where two pieces of memory differ first; `size` where they do not.
size_t first_difference(const void *memory, const void *expected, size_t size) {
    const auto *a = static_cast<const unsigned char *>(memory);
    const auto *b = static_cast<const unsigned char *>(expected);
    if (memcmp(a, b, size) == 0) [[likely]]
        return size;
    size_t at = 0;
    while (at < size && a[at] == b[at])
        ++at;
    return at;
}

} // namespace

void stop_here() {
    platform::assertion_failed("0", "common/lib/libk42mc/k42mc_debug", 369, "k42mc_guard_free");
}

void stop_process(const Stop &stop, StopListener listener) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // nothing runs after the report
    describe(stop);
    fflush(stdout);
    write_panic_string();
    if (listener != nullptr)
        listener(stop);
    stop_here();
}

void print_bad_access(const BadAccess &access) {
    describe(access);
    write_panic_string();
}

void *guard_alloc(uint32_t arena, uint32_t alignment, void *raw, size_t raw_size,
                  const StackTrace &trace) {
    const uintptr_t mask = uintptr_t{alignment} - 1;
    const uintptr_t user = (address_of(raw) + guard_bytes + mask) & ~mask;
    const uintptr_t at = user - guard_bytes;
    Word *header = words_at(at);
    header[magic_word].value = magic;
    store_trace(header + trace_word, trace.innermost(K42MC_GUARD_TRACE));
    header[alignment_word].value =
        static_cast<uintptr_t>(std::countr_zero(alignment)) << log2_shift | (at - address_of(raw));
    header[raw_size_word].value = raw_size;
    Word *tail = words_at(at - alignment + raw_size - (guard_bytes - 1));
    store_pattern<marked_words>(tail, tail_words);
    tail[arena_word].value = arena;
    return pointer_to(user);
}

ReleasedBlock guard_release(uint32_t arena, void *user, KnownBlock known, StopListener listener,
                            GuardTrace *allocation) {
    Layout layout{};
    const uintptr_t address = address_of(user);
    const Defect defect = examine(arena, address, known, layout);
    if (defect.code != K42MC_DEFECT_NONE) [[unlikely]]
        stop_process({defect, arena, user, known}, listener);
    if (allocation != nullptr)
        *allocation = load_trace(words_at(address - guard_bytes) + trace_word);
    mark_as_freed(address, layout);
    return {.raw = pointer_to(layout.raw),
            .raw_size = layout.raw_size,
            .user_size = layout.tail - address,
            .alignment = uint32_t{1} << layout.log2_alignment};
}

int live_defect(uint32_t arena, const void *user, size_t size) {
    const uintptr_t address = address_of(user);
    const uintptr_t tail = address + size;
    Layout layout{};
    const Defect defect = examine(arena, address, {.header_readable = true, .tail = tail}, layout);
    if (layout.tail == tail) [[likely]]
        return defect.code == K42MC_DEFECT_NONE ? K42MC_DEFECT_NONE : K42MC_DEFECT_WO;
    const Word *header = words_at(address - guard_bytes);
    if (header[magic_word].value == magic || carries_pattern(words_at(tail), tail_words))
        return K42MC_DEFECT_WU;
    return K42MC_DEFECT_NONE;
}

bool has_freed_guards(uint32_t arena, const void *user, size_t size, ptrdiff_t &change) {
    const uintptr_t address = address_of(user), header = address - guard_bytes, tail = address + size;
    uintptr_t expected[K42MC_GUARD_WORDS];
    std::copy(free_words.begin(), free_words.end(), expected);
    expected[freed_tail_word] = tail;
    size_t at = first_difference(pointer_to(header), expected, guard_bytes);
    if (at != guard_bytes) {
        change = static_cast<ptrdiff_t>(at) - static_cast<ptrdiff_t>(guard_bytes);
        return false;
    }
    const Word *words = words_at(tail);
    for (int i = freed_trace_word; i < arena_word; ++i)
        expected[i] = words[i].value; // the trace: nobody knows what it was
    expected[arena_word] = arena;
    at = first_difference(words, expected, guard_bytes);
    change = static_cast<ptrdiff_t>(size + at);
    return at == guard_bytes;
}

GuardTrace release_trace_of(const void *user, size_t size) {
    return load_trace(words_at(address_of(user) + size) + freed_trace_word);
}

// The header may lie in the page ahead of the block's, which need not be there.
BlockState state_of(const void *user) {
    const uintptr_t address = address_of(user);
    const Word *header = words_at(address - guard_bytes);
    if (address % smallest_page < guard_bytes && !platform::readable(header, guard_bytes))
        return BlockState::none;
    if (header[magic_word].value == magic)
        return BlockState::live;
    // The system's allocator keeps links of its own in the first four words of free memory. All of the
    // others, where one would do for a block known to be guarded: no block of anybody else's may be taken
    // for a freed one. Where that allocator has handed out a block at just this address, the words ahead may
    // be old marks, but the last of them is the size of its own block, and no address of a tail.
    for (size_t i = 4; i < free_words.size(); ++i) {
        if (header[i].value != free_words[i])
            return BlockState::none;
    }
    return header[freed_tail_word].value >= address ? BlockState::freed : BlockState::none;
}

BlockState probed_state_of(const void *user) {
    const Word *header = words_at(address_of(user) - guard_bytes);
    return platform::readable(header, guard_bytes) ? state_of(user) : BlockState::none;
}

bool has_guards(const void *user, size_t size) {
    if (probed_state_of(user) == BlockState::live)
        return true;
    const Word *tail = words_at(address_of(user) + size);
    return platform::readable(tail, guard_bytes) && carries_pattern(tail, tail_words);
}

bool guarded_size(const void *user, size_t *size) {
    const uintptr_t address = address_of(user);
    const Word *header = words_at(address - guard_bytes);
    Layout layout{};
    if (header[magic_word].value != magic || !decode_header(header, address_of(header), layout) ||
        layout.tail < address)
        return false;
    *size = layout.tail - address;
    return true;
}

RawMemory raw_memory_of(uintptr_t user, const uintptr_t (&header)[K42MC_GUARD_WORDS]) {
    Layout layout{};
    const auto *words = reinterpret_cast<const Word *>(header);
    if (words[magic_word].value != magic || !decode_header(words, user - guard_bytes, layout))
        return {0, 0};
    return {layout.raw, layout.raw_size};
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void *k42mc_guard_alloc(uint32_t arena, uint32_t alignment, void *raw, size_t raw_size) {
    StackTrace trace;
    trace.capture(K42MC_GUARD_TRACE);
    return guard_alloc(arena, alignment, raw, raw_size, trace);
}

void *k42mc_guard_free(uint32_t arena, void *user) {
    return guard_release(arena, user, {.header_readable = false, .tail = 0}, nullptr).raw;
}

K42MC_EXPORT(k42mc_guard_alloc);
K42MC_EXPORT(k42mc_guard_free);
