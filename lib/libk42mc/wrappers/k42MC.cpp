#include "wrappers/k42MC.h"

#include "base/checker_lock.h"
#include "base/errno_keeper.h"
#include "k42mc_debug.h"
#include "memcheck/registry.h"
#include "platform/memory_manager.h"
#include "wrappers/failures.h"
#include "wrappers/fill.h"
#include "wrappers/keep_back.h"
#include "wrappers/notice.h"
#include "wrappers/page_blocks.h"

#include <algorithm>
#include <limits>
#include <stdlib.h>
#include <string.h>

namespace k42mc::internal {
namespace {

// The underlying allocators. The calls go by these names through the dynamic linker, so that a process
// may put its own functions in their place.
struct StandardAllocator {
    static constexpr uint16_t type = MC_STD;
    static constexpr bool null_release_is_reported = false;
    static constexpr bool may_have_pages = true;

    static void *allocate(size_t size) { return malloc(size); }
    static void *allocate_zeroed(size_t size) { return calloc(1, size); }
    static void *resize(void *raw, size_t size) { return realloc(raw, size); }
    static void release(void *raw) { free(raw); }
};

struct MemoryManager {
    static constexpr uint16_t type = MC_SHM;
    static constexpr bool null_release_is_reported = true;
    static constexpr bool may_have_pages = false; // other processes may share its memory

    static void *allocate(size_t size) { return MM_malloc ? MM_malloc(size) : nullptr; }
    static void *allocate_zeroed(size_t size) { return MM_calloc ? MM_calloc(1, size) : nullptr; }
    static void *resize(void *raw, size_t size) { return MM_realloc ? MM_realloc(raw, size) : nullptr; }
    static void release(void *raw) {
        if (MM_free)
            MM_free(raw);
    }
};

constexpr uint32_t arena_of(uint16_t type) {
    return type + 1u;
}

// Null for most blocks: then nothing has been done.
template <class Family> void *try_pages(Site site, size_t size, size_t raw_size) {
    return Family::may_have_pages && raw_size != 0 ? try_pages(site, Family::type, 1, size) : nullptr;
}

// The most frequent of all calls has one frame.
template <class Family> [[gnu::always_inline]] inline void *wrap_malloc(Site site, size_t size) {
    const size_t raw_size = raw_size_for(site, size);
    if (void *const user = try_pages<Family>(site, size, raw_size)) [[unlikely]]
        return filled(user, size);
    void *raw = allocate_raw(raw_size, Family::allocate);
    return filled(hand_out(site, Family::type, 1, raw, raw_size, size), size);
}

template <class Family> void *wrap_calloc(Site site, size_t nmemb, size_t size) {
    size_t user_size;
    if (__builtin_mul_overflow(nmemb, size, &user_size))
        user_size = std::numeric_limits<size_t>::max();
    const size_t raw_size = raw_size_for(site, user_size);
    if (void *const user = try_pages<Family>(site, user_size, raw_size))
        return user;
    void *raw = allocate_raw(raw_size, Family::allocate_zeroed);
    return hand_out(site, Family::type, 1, raw, raw_size, user_size);
}

template <class Family> void wrap_free(Site site, void *ptr) {
    const ErrnoKeeper keep_errno;
    if (ptr != nullptr)
        ptr = take_back(site, Family::type, ptr);
    else if (Family::null_release_is_reported)
        report_null_release(site);
    Family::release(ptr);
}

// Where the user bytes of a plain block begin in raw memory.
void *plain_user(void *raw) {
    return static_cast<char *>(raw) + K42MC_GUARD_OVERHEAD / 2;
}

void slide(void *to, const void *from, size_t size) {
    if (to != from)
        memmove(to, from, size);
}

// A block with pages of its own cannot be resized: it moves, into others or out of them.
template <class Family> void *move_out_of_pages(Site site, void *ptr, size_t size, PageBlock *pages) {
    const RecordInHand record = take_record(ptr);
    PageBlock &old = claim_page_block(arena_of(Family::type), ptr, record.known);
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    void *user = pages != nullptr ? pages->user() : nullptr;
    if (user == nullptr) {
        const size_t raw_size = with_guards(size);
        void *raw = allocate_raw(raw_size, Family::allocate);
        if (raw == nullptr) {
            take_claim_back(old);
            put_record_back(record);
            return nullptr;
        }
        user = guard_alloc(arena_of(Family::type), 1, raw, raw_size, trace);
    }
    const ErrnoKeeper keep_errno;
    const size_t kept = std::min(old.size, size);
    memcpy(user, ptr, kept);
    filled(user, size, kept);
    end_page_block(old, trace);
    replace_record(record, site, Family::type, user, size, trace);
    return user;
}

template <class Family> void *move_into_pages(Site site, void *ptr, size_t size, PageBlock &pages) {
    const ErrnoKeeper keep_errno;
    const RecordInHand record = take_record(ptr);
    GuardTrace allocation;
    const ReleasedBlock old =
        guard_release(arena_of(Family::type), ptr, record.known, explain_stop, &allocation);
    const size_t kept = std::min(old.user_size, size);
    memcpy(pages.user(), ptr, kept);
    filled(pages.user(), size, kept);
    Family::release(keep_back(site, Family::type, ptr, old, allocation));
    StackTrace trace;
    trace.capture(trace_depth());
    replace_record(record, site, Family::type, pages.user(), size, trace);
    return pages.user();
}

template <class Family>
void *replace_block(const RecordInHand &record, Site site, void *raw, size_t raw_size, size_t size) {
    const ErrnoKeeper keep_errno;
    StackTrace trace;
    trace.capture(trace_depth());
    void *user = guard_alloc(arena_of(Family::type), 1, raw, raw_size, trace);
    replace_record(record, site, Family::type, user, size, trace);
    return user;
}

// The old record is in hand while the underlying allocator moves the block: the old address may belong
// to another thread before this one has the lock again. That allocator keeps raw bytes where they are,
// so the user bytes of an aligned block have to slide to where a plain block has them.
template <class Family> void *resize_block(Site site, void *ptr, size_t size) {
    const RecordInHand record = take_record(ptr);
    GuardTrace allocation;
    const ReleasedBlock old =
        guard_release(arena_of(Family::type), ptr, record.known, explain_stop, &allocation);
    const size_t kept = std::min(old.user_size, size);
    const size_t raw_size = with_guards(size);
    if (has_to_move(Family::type, old, size)) [[unlikely]] {
        if (void *raw = allocate_raw(raw_size, Family::allocate)) {
            void *user = replace_block<Family>(record, site, raw, raw_size, size);
            memcpy(user, ptr, kept);
            filled(user, size, kept);
            Family::release(keep_back(site, Family::type, ptr, old, allocation));
            return user;
        }
    }
    slide(plain_user(old.raw), ptr, kept);
    const auto resize = [&](size_t wanted) { return Family::resize(old.raw, wanted); };
    void *raw = allocate_raw(raw_size, resize);
    if (raw == nullptr) {
        const ErrnoKeeper keep_errno;
        slide(ptr, plain_user(old.raw), kept);
        StackTrace trace;
        trace.capture(K42MC_GUARD_TRACE);
        guard_alloc(arena_of(Family::type), old.alignment, old.raw, old.raw_size, trace);
        put_record_back(record);
        return nullptr;
    }
    void *user = replace_block<Family>(record, site, raw, raw_size, size);
    return filled(user, size, kept);
}

template <class Family> void *wrap_realloc(Site site, void *ptr, size_t size) {
    if (ptr == nullptr && size != 0)
        return wrap_malloc<Family>(site, size);
    if (size != 0) {
        if (is_to_fail(site, size)) [[unlikely]]
            return out_of_memory();
        PageBlock *pages =
            Family::may_have_pages ? try_page_block(site, Family::type, 1, size) : nullptr;
        if (in_page_range(ptr))
            return move_out_of_pages<Family>(site, ptr, size, pages);
        return pages != nullptr ? move_into_pages<Family>(site, ptr, size, *pages)
                                : resize_block<Family>(site, ptr, size);
    }
    const ErrnoKeeper keep_errno;
    Family::release(ptr != nullptr ? take_back(site, Family::type, ptr) : nullptr);
    return nullptr;
}

} // namespace

size_t with_guards(size_t size, size_t alignment) {
    size_t raw_size;
    if (__builtin_add_overflow(size, K42MC_GUARD_OVERHEAD + alignment - 1, &raw_size))
        return 0;
    return raw_size;
}

void *out_of_memory() {
    errno = ENOMEM;
    return nullptr;
}

bool valid_alignment(size_t alignment) {
    return alignment >= sizeof(void *) && (alignment & (alignment - 1)) == 0 &&
           alignment <= K42MC_ALIGN_MAX;
}

// What is recorded is asked first: only what is not may lie in no memory.
bool is_guarded(const void *ptr) {
    if (in_page_range(ptr))
        return true;
    if (!checker_on())
        return state_of(ptr) != BlockState::none;
    return is_recorded(ptr) || probed_state_of(ptr) != BlockState::none;
}

void *hand_out(Site site, uint16_t type, uint32_t alignment, void *raw, size_t raw_size,
               size_t user_size) {
    const ErrnoKeeper keep_errno;
    StackTrace trace;
    void *user = nullptr;
    if (raw != nullptr) {
        expect_block(plain_user(raw));
        trace.capture(trace_depth());
        user = guard_alloc(arena_of(type), alignment, raw, raw_size, trace);
    }
    record_block(site, type, user, user_size, trace);
    return user;
}

bool is_live(const void *ptr, size_t *size) {
    if (in_page_range(ptr)) {
        const PageBlock *const block = page_block_at(ptr);
        if (block == nullptr || !block->is_live())
            return false;
        *size = block->size;
        return true;
    }
    return state_of(ptr) == BlockState::live && guarded_size(ptr, size);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void *k42MC_malloc(const char *file, int line, size_t size) {
    return wrap_malloc<StandardAllocator>({file, line}, size);
}

void *k42MC_calloc(const char *file, int line, size_t nmemb, size_t size) {
    return wrap_calloc<StandardAllocator>({file, line}, nmemb, size);
}

void *k42MC_realloc(const char *file, int line, void *ptr, size_t size) {
    return wrap_realloc<StandardAllocator>({file, line}, ptr, size);
}

int k42MC_posix_memalign(const char *file, int line, void **memptr, size_t alignment, size_t size) {
    const ErrnoKeeper keep_errno;
    const bool valid = valid_alignment(alignment);
    const size_t raw_size = valid ? raw_size_for({file, line}, size, alignment) : 0;
    if (raw_size != 0)
        if (void *const user = try_pages({file, line}, MC_STD, alignment, size)) {
            *memptr = filled(user, size);
            return 0;
        }
    void *raw = allocate_raw(raw_size, malloc);
    *memptr = filled(
        hand_out({file, line}, MC_STD, static_cast<uint32_t>(alignment), raw, raw_size, size), size);
    if (!valid)
        return EINVAL;
    return raw != nullptr ? 0 : ENOMEM;
}

void *k42MC_valloc(const char *file, int line, size_t size) {
    const size_t page = platform::page_size();
    if (!valid_alignment(page))
        platform::assertion_failed("alignment >= sizeof(void *) && 0 == (alignment & (alignment - 1)) "
                                   "&& alignment <= K42MC_ALIGN_MAX",
                                   "lib/libk42mc/k42MC", 194, "k42MC_valloc");
    const size_t raw_size = raw_size_for({file, line}, size, page);
    if (raw_size != 0)
        if (void *const user = try_pages({file, line}, MC_STD, page, size))
            return filled(user, size);
    void *raw = allocate_raw(raw_size, malloc);
    return filled(hand_out({file, line}, MC_STD, static_cast<uint32_t>(page), raw, raw_size, size),
                  size);
}

void k42MC_free(const char *file, int line, void *ptr) {
    wrap_free<StandardAllocator>({file, line}, ptr);
}

void k42MC_cfree(const char *file, int line, void *ptr) {
    wrap_free<StandardAllocator>({file, line}, ptr);
}

void *k42MC_MM_malloc(const char *file, int line, size_t size) {
    return wrap_malloc<MemoryManager>({file, line}, size);
}

void *k42MC_MM_calloc(const char *file, int line, size_t nmemb, size_t size) {
    return wrap_calloc<MemoryManager>({file, line}, nmemb, size);
}

void *k42MC_MM_realloc(const char *file, int line, void *ptr, size_t size) {
    return wrap_realloc<MemoryManager>({file, line}, ptr, size);
}

char *k42MC_MM_strdup(const char *file, int line, const char *s) {
    const size_t size = strlen(s) + 1;
    auto *copy = static_cast<char *>(wrap_malloc<MemoryManager>({file, line}, size));
    if (copy != nullptr)
        memcpy(copy, s, size);
    return copy;
}

void k42MC_MM_free(const char *file, int line, void *ptr) {
    wrap_free<MemoryManager>({file, line}, ptr);
}

K42MC_EXPORT(k42MC_malloc);
K42MC_EXPORT(k42MC_calloc);
K42MC_EXPORT(k42MC_realloc);
K42MC_EXPORT(k42MC_posix_memalign);
K42MC_EXPORT(k42MC_valloc);
K42MC_EXPORT(k42MC_free);
K42MC_EXPORT(k42MC_cfree);
K42MC_EXPORT(k42MC_MM_malloc);
K42MC_EXPORT(k42MC_MM_calloc);
K42MC_EXPORT(k42MC_MM_realloc);
K42MC_EXPORT(k42MC_MM_strdup);
K42MC_EXPORT(k42MC_MM_free);
