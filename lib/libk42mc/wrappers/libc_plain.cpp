// The routes for references without a site.
#include "linkage/linkage.h"

#include <stdarg.h>

namespace {

constexpr char indirect[] = "(indirect call)";

} // namespace

void *k42mcx_plain_malloc(size_t size) {
    return k42MC_malloc(indirect, 0, size);
}

void *k42mcx_plain_calloc(size_t nmemb, size_t size) {
    return k42MC_calloc(indirect, 0, nmemb, size);
}

void *k42mcx_plain_realloc(void *ptr, size_t size) {
    return k42mcx_realloc(indirect, 0, ptr, size);
}

void *k42mcx_plain_reallocarray(void *ptr, size_t nmemb, size_t size) {
    return k42mcx_reallocarray(indirect, 0, ptr, nmemb, size);
}

int k42mcx_plain_posix_memalign(void **memptr, size_t alignment, size_t size) {
    return k42MC_posix_memalign(indirect, 0, memptr, alignment, size);
}

void *k42mcx_plain_aligned_alloc(size_t alignment, size_t size) {
    return k42mcx_aligned_alloc(indirect, 0, alignment, size);
}

void *k42mcx_plain_memalign(size_t alignment, size_t size) {
    return k42mcx_memalign(indirect, 0, alignment, size);
}

void *k42mcx_plain_valloc(size_t size) {
    return k42MC_valloc(indirect, 0, size);
}

void k42mcx_plain_free(void *ptr) {
    k42MC_free(indirect, 0, ptr);
}

void k42mcx_plain_cfree(void *ptr) {
    k42MC_cfree(indirect, 0, ptr);
}

char *k42mcx_plain_strdup(const char *s) {
    return k42mcx_strdup(indirect, 0, s);
}

char *k42mcx_plain_strndup(const char *s, size_t most) {
    return k42mcx_strndup(indirect, 0, s, most);
}

wchar_t *k42mcx_plain_wcsdup(const wchar_t *s) {
    return k42mcx_wcsdup(indirect, 0, s);
}

int k42mcx_plain_asprintf(char **text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = k42mcx_vasprintf(indirect, 0, text, format, arguments);
    va_end(arguments);
    return length;
}

int k42mcx_plain_vasprintf(char **text, const char *format, va_list arguments) {
    return k42mcx_vasprintf(indirect, 0, text, format, arguments);
}

ptrdiff_t k42mcx_plain_getline(char **buffer, size_t *capacity, _IO_FILE *stream) {
    return k42mcx_getline(indirect, 0, buffer, capacity, stream);
}

ptrdiff_t k42mcx_plain_getdelim(char **buffer, size_t *capacity, int delimiter, _IO_FILE *stream) {
    return k42mcx_getdelim(indirect, 0, buffer, capacity, delimiter, stream);
}

_IO_FILE *k42mcx_plain_open_memstream(char **text, size_t *size) {
    return k42mcx_open_memstream(indirect, 0, text, size);
}

char *k42mcx_plain_realpath(const char *path, char *resolved) {
    return k42mcx_realpath(indirect, 0, path, resolved);
}

char *k42mcx_plain_getcwd(char *buffer, size_t size) {
    return k42mcx_getcwd(indirect, 0, buffer, size);
}

K42MC_EXPORT(k42mcx_plain_malloc);
K42MC_EXPORT(k42mcx_plain_calloc);
K42MC_EXPORT(k42mcx_plain_realloc);
K42MC_EXPORT(k42mcx_plain_reallocarray);
K42MC_EXPORT(k42mcx_plain_posix_memalign);
K42MC_EXPORT(k42mcx_plain_aligned_alloc);
K42MC_EXPORT(k42mcx_plain_memalign);
K42MC_EXPORT(k42mcx_plain_valloc);
K42MC_EXPORT(k42mcx_plain_free);
K42MC_EXPORT(k42mcx_plain_cfree);
K42MC_EXPORT(k42mcx_plain_strdup);
K42MC_EXPORT(k42mcx_plain_strndup);
K42MC_EXPORT(k42mcx_plain_wcsdup);
K42MC_EXPORT(k42mcx_plain_asprintf);
K42MC_EXPORT(k42mcx_plain_vasprintf);
K42MC_EXPORT(k42mcx_plain_getline);
K42MC_EXPORT(k42mcx_plain_getdelim);
K42MC_EXPORT(k42mcx_plain_open_memstream);
K42MC_EXPORT(k42mcx_plain_realpath);
K42MC_EXPORT(k42mcx_plain_getcwd);
