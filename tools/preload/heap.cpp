// The malloc family, over guarded blocks. The wrappers' own calls of these names come back here, from
// inside the checker, and go to the next allocator; so does what libc allocates while the checker prints.
#include "base/errno_keeper.h"
#include "platform/platform.h"
#include "platform/trace_buffer.h"
#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/foreign.h"
#include "tools/preload/next_heap.h"
#include "tools/preload/operators.h"
#include "tools/preload/own_allocator.h"
#include "tools/preload/site.h"
#include "wrappers/k42MC.h"

#include <k42mc/k42mc.h>

#include <bit>
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>

__thread int checker_depth = 0;
__thread bool looking_up = false;

namespace {

using namespace k42mc::internal;

#define CALLER __builtin_return_address(0)

// The next allocator is part of the checker: a signal handler that interrupts it finds its locks taken.
void *resize_plain(void *ptr, size_t size) {
    const InsideChecker inside;
    return next_realloc(ptr, size);
}

bool called_by_checker(const void *caller) {
    return platform::TraceBuffer::is_own(reinterpret_cast<uintptr_t>(caller));
}

// The checker is at work below a call of the shim, or below one of its own functions, in a program that
// is linked to it.
bool for_checker(const void *caller) {
    return checker_depth != 0 || (called_by_checker(caller) && !leads_to_programs_operator(caller));
}

bool goes_past(const void *caller) {
    return for_checker(caller) || program_is_left_alone();
}

void *allocate(const void *caller, size_t size) {
    if (goes_past(caller))
        return next_malloc(size);
    const InsideChecker inside;
    return k42MC_malloc(site_of(caller), 0, size);
}

void *resize(const void *caller, void *ptr, size_t size) {
    if (ptr == nullptr)
        return allocate(caller, size);
    if (for_checker(caller))
        return resize_plain(ptr, size);
    if (!is_guarded(ptr)) {
        stop_unless_foreign(MC_STD, ptr);
        return resize_plain(ptr, size);
    }
    const InsideChecker inside;
    return k42mcx_realloc(site_of(caller), 0, ptr, size);
}

// Alignments are rounded up to a power of two, as libc does.
void *allocate_aligned(const void *caller, size_t alignment, size_t size) {
    if (goes_past(caller))
        return next_memalign(alignment, size);
    const InsideChecker inside;
    return k42mcx_memalign(site_of(caller), 0, alignment, size);
}

// Inside the checker, blocks that libc allocated outside of it stay where they are: releasing one would
// want the lock that this thread may hold.
void release(const void *caller, void *ptr) {
    if (ptr == nullptr)
        return;
    if (for_checker(caller)) {
        size_t size;
        if (called_by_checker(caller) || !is_live(ptr, &size))
            next_free(ptr);
        return;
    }
    const InsideChecker inside;
    const ErrnoKeeper keep_errno;
    next_free(take_back_unless_foreign({site_of(caller), 0}, MC_STD, ptr));
}

} // namespace

extern "C" {

EXPORTED void *malloc(size_t size) {
    return allocate(CALLER, size);
}

EXPORTED void *calloc(size_t nmemb, size_t size) {
    if (goes_past(CALLER))
        return next_calloc(nmemb, size);
    const InsideChecker inside;
    return k42MC_calloc(site_of(CALLER), 0, nmemb, size);
}

EXPORTED void *realloc(void *ptr, size_t size) {
    return resize(CALLER, ptr, size);
}

EXPORTED void *reallocarray(void *ptr, size_t nmemb, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(nmemb, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return resize(CALLER, ptr, bytes);
}

EXPORTED void free(void *ptr) {
    release(CALLER, ptr);
}

EXPORTED void cfree(void *ptr) {
    release(CALLER, ptr);
}

EXPORTED void *memalign(size_t alignment, size_t size) {
    return allocate_aligned(CALLER, alignment, size);
}

EXPORTED void *aligned_alloc(size_t alignment, size_t size) {
    return allocate_aligned(CALLER, alignment, size);
}

EXPORTED void *valloc(size_t size) {
    return allocate_aligned(CALLER, platform::page_size(), size);
}

EXPORTED void *pvalloc(size_t size) {
    const size_t page = platform::page_size();
    size_t padded;
    if (__builtin_add_overflow(size, page - 1, &padded)) {
        errno = ENOMEM;
        return nullptr;
    }
    return allocate_aligned(CALLER, page, padded & -page);
}

EXPORTED int posix_memalign(void **memptr, size_t alignment, size_t size) {
    if (alignment < sizeof(void *) || !std::has_single_bit(alignment))
        return EINVAL;
    const int saved_errno = errno;
    void *block = allocate_aligned(CALLER, alignment, size);
    errno = saved_errno;
    if (block == nullptr)
        return ENOMEM;
    *memptr = block;
    return 0;
}

EXPORTED size_t malloc_usable_size(void *ptr) {
    if (ptr == nullptr)
        return 0;
    size_t size;
    if (is_live(ptr, &size))
        return size;
    return NEXT(malloc_usable_size)(ptr);
}
}
