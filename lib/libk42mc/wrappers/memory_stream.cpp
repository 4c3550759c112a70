// open_memstream over a guarded block.
#include "base/errno_keeper.h"
#include "wrappers/k42MC.h"

#include <algorithm>
#include <limits>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

using namespace k42mc::internal;

namespace {

struct MemoryStream {
    Site site;
    char **text; // the caller's
    size_t *size;
    char *block;
    size_t capacity; // without the NUL
    size_t length;
    size_t position;
};

MemoryStream &stream_of(void *cookie) {
    return *static_cast<MemoryStream *>(cookie);
}

void tell_caller(const MemoryStream &stream) {
    *stream.text = stream.block;
    *stream.size = std::min(stream.position, stream.length);
}

bool set_capacity(MemoryStream &stream, size_t capacity) {
    void *moved = k42mcx_realloc(stream.site.file, stream.site.line, stream.block, capacity + 1);
    if (moved == nullptr)
        return false;
    stream.block = static_cast<char *>(moved);
    stream.capacity = capacity;
    return true;
}

// The position may lie beyond the length: what is in between reads as zeros.
bool make_room(MemoryStream &stream, size_t end) {
    constexpr size_t largest = std::numeric_limits<ptrdiff_t>::max() - 1;
    const size_t doubled = stream.capacity <= largest / 2 ? 2 * stream.capacity : largest;
    if (end > stream.capacity && !set_capacity(stream, std::max(end, doubled)))
        return false;
    if (end > stream.length) {
        memset(stream.block + stream.length, 0, end + 1 - stream.length);
        stream.length = end;
    }
    return true;
}

ssize_t write_stream(void *cookie, const char *bytes, size_t count) {
    MemoryStream &stream = stream_of(cookie);
    size_t end;
    if (__builtin_add_overflow(stream.position, count, &end) ||
        end >= std::numeric_limits<ptrdiff_t>::max()) {
        errno = EFBIG;
        return 0; // not -1: the cookie interface of libc takes that for a count
    }
    if (!make_room(stream, end))
        return 0;
    memcpy(stream.block + stream.position, bytes, count);
    stream.position = end;
    tell_caller(stream);
    return static_cast<ssize_t>(count);
}

int seek_stream(void *cookie, off64_t *offset, int whence) {
    MemoryStream &stream = stream_of(cookie);
    const size_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? stream.position : stream.length;
    ptrdiff_t position;
    if (__builtin_add_overflow(base, *offset, &position) || position < 0) {
        errno = EINVAL;
        return -1;
    }
    stream.position = static_cast<size_t>(position);
    *offset = position;
    tell_caller(stream);
    return 0;
}

int close_stream(void *cookie) {
    MemoryStream &stream = stream_of(cookie);
    // Without slack behind the text, a write past its end is an overflow.
    const bool trimmed = set_capacity(stream, stream.length);
    tell_caller(stream);
    free(cookie);
    return trimmed ? 0 : -1;
}

// Unbuffered: libc's exit flushes what an unclosed stream has buffered, and by then the caller's
// variables may be gone.
FILE *open_unbuffered(MemoryStream *stream) {
    FILE *file = fopencookie(
        stream, "w",
        {.read = nullptr, .write = write_stream, .seek = seek_stream, .close = close_stream});
    if (file != nullptr)
        setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

} // namespace

FILE *k42mcx_open_memstream(const char *file, int line, char **text, size_t *size) {
    if (text == nullptr || size == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto *stream = static_cast<MemoryStream *>(malloc(sizeof(MemoryStream)));
    auto *block = static_cast<char *>(k42MC_calloc(file, line, 1, 1));
    if (stream != nullptr && block != nullptr) {
        *stream = {.site = {file, line},
                   .text = text,
                   .size = size,
                   .block = block,
                   .capacity = 0,
                   .length = 0,
                   .position = 0};
        if (FILE *opened = open_unbuffered(stream)) {
            tell_caller(*stream);
            return opened;
        }
    }
    const ErrnoKeeper keep_errno;
    k42MC_free(file, line, block);
    free(stream);
    return nullptr;
}

K42MC_EXPORT(k42mcx_open_memstream);
