// Blocks of a type that the caller chooses, over the standard allocator.
#include "base/errno_keeper.h"
#include "wrappers/failures.h"
#include "wrappers/fill.h"
#include "wrappers/k42MC.h"
#include "wrappers/keep_back.h"
#include "wrappers/page_blocks.h"

#include <stdlib.h>

using namespace k42mc::internal;

void *k42mcx_alloc(const char *file, int line, int type, size_t alignment, size_t size) {
    if (type < MC_STD || type >= MC_SHM || (alignment != 1 && !valid_alignment(alignment))) {
        errno = EINVAL;
        return nullptr;
    }
    const size_t raw_size = raw_size_for({file, line}, size, alignment);
    if (raw_size != 0)
        if (void *const user = try_pages({file, line}, static_cast<uint16_t>(type), alignment, size))
            return filled(user, size);
    void *raw = allocate_raw(raw_size, malloc);
    return filled(hand_out({file, line}, static_cast<uint16_t>(type), static_cast<uint32_t>(alignment),
                           raw, raw_size, size),
                  size);
}

void k42mcx_free(const char *file, int line, int type, void *ptr) {
    const ErrnoKeeper keep_errno;
    if (ptr != nullptr)
        free(take_back({file, line}, static_cast<uint16_t>(type), ptr));
}

K42MC_EXPORT(k42mcx_alloc);
K42MC_EXPORT(k42mcx_free);
