#include "tools/preload/guarded.h"

#include "platform/platform.h"

#include <k42mc/guard.h>
#include <stdint.h>
#include <string.h>

namespace {

constexpr size_t header_size = K42MC_GUARD_WORDS * sizeof(uintptr_t);

// A header lies in the page of its block, or in the one before, which need not be there for others.
const unsigned char *header_of(const void *user) {
    constexpr uintptr_t smallest_page = 4096;
    const auto *header = static_cast<const unsigned char *>(user) - header_size;
    const bool same_page = reinterpret_cast<uintptr_t>(user) % smallest_page >= header_size;
    return same_page || k42mc::internal::platform::readable(header, header_size) ? header : nullptr;
}

} // namespace

bool is_guarded(const void *user) {
    const unsigned char *header = header_of(user);
    return header != nullptr && memcmp(header, k42mc_head_alloc_guard, sizeof(uintptr_t)) == 0;
}

// libc keeps its own links in the first four words of free memory.
bool was_guarded(const void *user) {
    constexpr size_t pattern_bytes = 28;
    const unsigned char *header = header_of(user);
    if (header == nullptr)
        return false;
    for (size_t at = 4 * sizeof(uintptr_t); at < 7 * sizeof(uintptr_t); ++at)
        if (header[at] != k42mc_free_guard[at % pattern_bytes])
            return false;
    return true;
}
