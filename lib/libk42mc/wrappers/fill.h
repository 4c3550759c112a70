// What new memory is filled with, so that whoever uses it before writing there gets the same each time.
#pragma once

#include <atomic>
#include <stddef.h>

namespace k42mc::internal {

extern constinit std::atomic<int> new_byte; // -1 for none

// The bytes of a block, which may be null, from `kept` to `size`. Returns the block.
void *fill(void *user, size_t kept, size_t size);

inline void *filled(void *user, size_t size, size_t kept = 0) {
    return new_byte.load(std::memory_order_relaxed) < 0 ? user : fill(user, kept, size);
}

} // namespace k42mc::internal
