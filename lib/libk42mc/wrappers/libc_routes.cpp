// libc's functions that hand out memory, over guarded blocks.
#include "base/errno_keeper.h"
#include "wrappers/k42MC.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wchar.h>

using namespace k42mc::internal;

namespace {

// What libc starts a line buffer with.
constexpr size_t first_line_capacity = 120;

void *allocate_aligned(Site site, size_t alignment, size_t size) {
    void *block;
    const int error =
        k42MC_posix_memalign(site.file, site.line, &block, std::max(alignment, sizeof(void *)), size);
    if (error != 0)
        errno = error;
    return block;
}

// Copies what fits of a string of libc's making to a guarded block of size bytes and releases it.
char *adopt(Site site, char *from_libc, size_t size) {
    auto *copy = static_cast<char *>(k42MC_malloc(site.file, site.line, size));
    if (copy != nullptr)
        memcpy(copy, from_libc, std::min(size, strlen(from_libc) + 1));
    const ErrnoKeeper keep_errno;
    free(from_libc);
    return copy;
}

char *copy_text(Site site, const char *text, size_t length) {
    auto *copy = static_cast<char *>(k42MC_malloc(site.file, site.line, length + 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// Makes room for a line of length bytes and its NUL. False, with errno set, when there is none.
bool grow_line(Site site, char *&buffer, size_t &capacity, size_t length) {
    constexpr size_t longest = std::numeric_limits<ptrdiff_t>::max();
    if (length >= longest) {
        errno = EOVERFLOW;
        return false;
    }
    const size_t larger = std::max(length + 1, capacity <= longest / 2 ? 2 * capacity : longest);
    void *moved = k42mcx_realloc(site.file, site.line, buffer, larger);
    if (moved == nullptr)
        return false;
    buffer = static_cast<char *>(moved);
    capacity = larger;
    return true;
}

ptrdiff_t read_line(Site site, char *&buffer, size_t &capacity, int delimiter, FILE *stream) {
    if (ferror_unlocked(stream))
        return -1;
    // Like libc's, this does not look at a buffer whose capacity is 0: programs leave it uninitialised.
    if (buffer == nullptr || capacity == 0) {
        buffer = static_cast<char *>(k42MC_malloc(site.file, site.line, first_line_capacity));
        if (buffer == nullptr)
            return -1;
        capacity = first_line_capacity;
    }
    const auto last = static_cast<unsigned char>(delimiter);
    size_t length = 0;
    int c;
    do {
        c = getc_unlocked(stream);
        if (c == EOF)
            break;
        if (length + 1 >= capacity && !grow_line(site, buffer, capacity, length + 1))
            return -1;
        buffer[length++] = static_cast<char>(c);
    } while (c != last);
    if (length == 0)
        return -1;
    buffer[length] = '\0';
    return static_cast<ptrdiff_t>(length);
}

} // namespace

void *k42mcx_realloc(const char *file, int line, void *ptr, size_t size) {
    return ptr == nullptr ? k42MC_malloc(file, line, size) : k42MC_realloc(file, line, ptr, size);
}

void *k42mcx_reallocarray(const char *file, int line, void *ptr, size_t nmemb, size_t size) {
    size_t product;
    if (__builtin_mul_overflow(nmemb, size, &product))
        return out_of_memory();
    return k42mcx_realloc(file, line, ptr, product);
}

void *k42mcx_aligned_alloc(const char *file, int line, size_t alignment, size_t size) {
    if (!std::has_single_bit(alignment)) {
        errno = EINVAL;
        return nullptr;
    }
    return allocate_aligned({file, line}, alignment, size);
}

void *k42mcx_memalign(const char *file, int line, size_t alignment, size_t size) {
    // Past the largest power of two that can be recorded there is nothing to round.
    return allocate_aligned({file, line},
                            alignment <= K42MC_ALIGN_MAX ? std::bit_ceil(alignment) : alignment, size);
}

char *k42mcx_strdup(const char *file, int line, const char *s) {
    return copy_text({file, line}, s, strlen(s));
}

char *k42mcx_strndup(const char *file, int line, const char *s, size_t most) {
    return copy_text({file, line}, s, strnlen(s, most));
}

wchar_t *k42mcx_wcsdup(const char *file, int line, const wchar_t *s) {
    const size_t size = (wcslen(s) + 1) * sizeof *s;
    auto *copy = static_cast<wchar_t *>(k42MC_malloc(file, line, size));
    if (copy != nullptr)
        memcpy(copy, s, size);
    return copy;
}

int k42mcx_asprintf(const char *file, int line, char **text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = k42mcx_vasprintf(file, line, text, format, arguments);
    va_end(arguments);
    return length;
}

// libc formats, so that the text is what it would have been; formatting twice would not do when another
// thread changes what is printed.
int k42mcx_vasprintf(const char *file, int line, char **text, const char *format, va_list arguments) {
    char *from_libc;
    const int length = vasprintf(&from_libc, format, arguments);
    *text = nullptr;
    if (length < 0)
        return -1;
    *text = copy_text({file, line}, from_libc, static_cast<size_t>(length));
    const ErrnoKeeper keep_errno;
    free(from_libc);
    return *text != nullptr ? length : -1;
}

ptrdiff_t k42mcx_getline(const char *file, int line, char **buffer, size_t *capacity, FILE *stream) {
    return k42mcx_getdelim(file, line, buffer, capacity, '\n', stream);
}

ptrdiff_t k42mcx_getdelim(const char *file, int line, char **buffer, size_t *capacity, int delimiter,
                          FILE *stream) {
    if (buffer == nullptr || capacity == nullptr) {
        errno = EINVAL;
        return -1;
    }
    flockfile(stream);
    const ptrdiff_t length = read_line({file, line}, *buffer, *capacity, delimiter, stream);
    funlockfile(stream);
    return length;
}

char *k42mcx_realpath(const char *file, int line, const char *path, char *resolved) {
    char *result = realpath(path, resolved);
    if (resolved != nullptr || result == nullptr)
        return result;
    return adopt({file, line}, result, strlen(result) + 1);
}

char *k42mcx_getcwd(const char *file, int line, char *buffer, size_t size) {
    char *result = getcwd(buffer, size);
    if (buffer != nullptr || result == nullptr)
        return result;
    return adopt({file, line}, result, size != 0 ? size : strlen(result) + 1);
}

size_t k42mcx_malloc_usable_size(void *ptr) {
    size_t size;
    if (ptr == nullptr)
        return 0;
    if (is_live(ptr, &size))
        return size;
    return malloc_usable_size(ptr);
}

void k42mcx_raw_free(void *ptr) {
    free(ptr);
}

K42MC_EXPORT(k42mcx_realloc);
K42MC_EXPORT(k42mcx_reallocarray);
K42MC_EXPORT(k42mcx_aligned_alloc);
K42MC_EXPORT(k42mcx_memalign);
K42MC_EXPORT(k42mcx_strdup);
K42MC_EXPORT(k42mcx_strndup);
K42MC_EXPORT(k42mcx_wcsdup);
K42MC_EXPORT(k42mcx_asprintf);
K42MC_EXPORT(k42mcx_vasprintf);
K42MC_EXPORT(k42mcx_getline);
K42MC_EXPORT(k42mcx_getdelim);
K42MC_EXPORT(k42mcx_realpath);
K42MC_EXPORT(k42mcx_getcwd);
K42MC_EXPORT(k42mcx_malloc_usable_size);
K42MC_EXPORT(k42mcx_raw_free);
