#include "platform/bytes.h"

#include "platform/platform.h"
#include "platform/unsanitized.h"

#include <algorithm>
#include <cerrno>

namespace k42mc::internal::platform {
namespace {

// Reads through a volatile pointer, lest the loop becomes a call of memcpy, which sanitizers watch.
K42MC_UNSANITIZED void copy(unsigned char *to, uintptr_t from, size_t size) {
    const auto *bytes = reinterpret_cast<const volatile unsigned char *>(from);
    for (size_t i = 0; i < size; ++i)
        to[i] = bytes[i];
}

size_t fetch_memory(uint64_t offset, unsigned char *to, size_t size) {
    if (offset > UINTPTR_MAX)
        return 0;
    const size_t page = page_size();
    size_t done = 0;
    while (done < size) {
        const uintptr_t from = static_cast<uintptr_t>(offset) + done;
        if (!readable(reinterpret_cast<const void *>(from), 1))
            break;
        const size_t piece = std::min(size - done, page - from % page);
        copy(to + done, from, piece);
        done += piece;
    }
    return done;
}

size_t fetch_file(int file, uint64_t offset, unsigned char *to, size_t size) {
    if (offset > uint64_t{INT64_MAX} - size)
        return 0;
    size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(file, to + done, size - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += static_cast<size_t>(got);
    }
    return done;
}

} // namespace

size_t fetch(Source source, uint64_t offset, void *to, size_t size) {
    auto *bytes = static_cast<unsigned char *>(to);
    return source.file < 0 ? fetch_memory(offset, bytes, size)
                           : fetch_file(source.file, offset, bytes, size);
}

} // namespace k42mc::internal::platform
