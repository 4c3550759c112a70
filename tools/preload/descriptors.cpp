// Each function under its own name: with large files the headers would give one name for another.
#undef _FILE_OFFSET_BITS

#include "tools/preload/descriptors.h"

#include "fdcheck/routes.h"
#include "platform/platform.h"
#include "tools/preload/closing.h"
#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/failing.h"
#include "tools/preload/next.h"

#include <k42mc/extra.h>

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <type_traits>
#include <unistd.h>

namespace {

constinit bool watching = false;

// Not for what the checker opens itself, nor in a signal handler that has interrupted it.
bool wanted() {
    return watching && checker_depth == 0;
}

int opened(const char *name, int descriptor) {
    if (!wanted())
        return descriptor;
    const InsideChecker inside;
    return k42mcx_fd_opened(name, descriptor);
}

int opened_another(const char *name, int given, int descriptor) {
    return descriptor == given ? descriptor : opened(name, descriptor);
}

int opened_pair(const char *name, const int *descriptors, int result) {
    if (!wanted())
        return result;
    const InsideChecker inside;
    return k42mcx_fd_opened_pair(name, descriptors, result);
}

FILE *opened_stream(const char *name, FILE *stream) {
    if (!wanted())
        return stream;
    const InsideChecker inside;
    return k42mcx_fd_opened_stream(name, stream);
}

DIR *opened_directory(const char *name, DIR *directory) {
    if (!wanted())
        return directory;
    const InsideChecker inside;
    return k42mcx_fd_opened_directory(name, directory);
}

// Returns false for the second close of one, which is as far as it gets.
template <class Handle> bool closes(const char *name, Handle *handle) {
    if (!wanted())
        return true;
    const InsideChecker inside;
    if (k42mc::internal::records_close(name, handle))
        return true;
    errno = EBADF;
    return false;
}

template <class Result> Result failed() {
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return -1;
}

mode_t mode_of(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

void watch_descriptors() {
    // A handler's event may have interrupted libc where it holds the lock of its time zones.
    k42mc::internal::platform::local_time(time(nullptr));
    k42mc::internal::platform::freeze_utc_offset();
    watching = true;
}

bool descriptors_watched() {
    return watching;
}

// A function of the same parameters, which records what libc's function returned by `record`.
#define ROUTE(result, name, parameters, specifier, record, ...)                                         \
    EXPORTED result name parameters specifier {                                                         \
        return descriptor_fails(#name) ? failed<result>() : record(#name, NEXT(name)(__VA_ARGS__));     \
    }
// One to a descriptor that there is.
#define ROUTE_GIVEN(result, name, parameters, specifier, record, ...)                                   \
    EXPORTED result name parameters specifier {                                                         \
        return record(#name, NEXT(name)(__VA_ARGS__));                                                  \
    }
#define ROUTE_PAIR(name, parameters, descriptors, ...)                                                  \
    EXPORTED int name parameters noexcept {                                                             \
        return descriptor_fails(#name) ? -1 : opened_pair(#name, descriptors, NEXT(name)(__VA_ARGS__)); \
    }
#define ROUTE_OPEN(name)                                                                                \
    EXPORTED int name(const char *path, int flags, ...) {                                               \
        va_list arguments;                                                                              \
        va_start(arguments, flags);                                                                     \
        const mode_t mode = mode_of(flags, arguments);                                                  \
        va_end(arguments);                                                                              \
        return descriptor_fails(#name) ? -1 : opened(#name, NEXT(name)(path, flags, mode));             \
    }
#define ROUTE_OPENAT(name)                                                                              \
    EXPORTED int name(int folder, const char *path, int flags, ...) {                                   \
        va_list arguments;                                                                              \
        va_start(arguments, flags);                                                                     \
        const mode_t mode = mode_of(flags, arguments);                                                  \
        va_end(arguments);                                                                              \
        return descriptor_fails(#name) ? -1 : opened(#name, NEXT(name)(folder, path, flags, mode));     \
    }
#define ROUTE_CLOSE(name, type)                                                                         \
    EXPORTED int name(type handle) {                                                                    \
        return closes(#name, handle) ? NEXT(name)(handle) : -1;                                         \
    }
#define ROUTE_REOPEN(name)                                                                              \
    EXPORTED FILE *name(const char *path, const char *mode, FILE *stream) {                             \
        if (wanted()) {                                                                                 \
            const InsideChecker inside;                                                                 \
            k42mcx_fd_closing_stream(#name, stream);                                                    \
        }                                                                                               \
        return opened_stream(#name, NEXT(name)(path, mode, stream));                                    \
    }

extern "C" {

// What open and openat become where the compiler checks buffers.
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int folder, const char *path, int flags);
int __openat64_2(int folder, const char *path, int flags);

ROUTE_OPEN(open)
ROUTE_OPEN(open64)
ROUTE_OPENAT(openat)
ROUTE_OPENAT(openat64)
ROUTE(int, __open_2, (const char *path, int flags), , opened, path, flags)
ROUTE(int, __open64_2, (const char *path, int flags), , opened, path, flags)
ROUTE(int, __openat_2, (int folder, const char *path, int flags), , opened, folder, path, flags)
ROUTE(int, __openat64_2, (int folder, const char *path, int flags), , opened, folder, path, flags)
ROUTE(int, creat, (const char *path, mode_t mode), , opened, path, mode)
ROUTE(int, creat64, (const char *path, mode_t mode), , opened, path, mode)
ROUTE(int, mkstemp, (char *path), , opened, path)
ROUTE(int, mkstemp64, (char *path), , opened, path)
ROUTE(int, mkostemp, (char *path, int flags), , opened, path, flags)
ROUTE(int, mkostemp64, (char *path, int flags), , opened, path, flags)
ROUTE(int, memfd_create, (const char *name, unsigned flags), noexcept, opened, name, flags)
ROUTE(int, dup, (int from), noexcept, opened, from)
ROUTE(int, socket, (int domain, int type, int protocol), noexcept, opened, domain, type, protocol)
ROUTE(int, accept, (int from, sockaddr *address, socklen_t *size), , opened, from, address, size)
ROUTE(int, accept4, (int from, sockaddr *address, socklen_t *size, int flags), , opened, from, address,
      size, flags)
ROUTE(int, eventfd, (unsigned value, int flags), noexcept, opened, value, flags)
ROUTE(int, epoll_create, (int size), noexcept, opened, size)
ROUTE(int, epoll_create1, (int flags), noexcept, opened, flags)
ROUTE(int, timerfd_create, (clockid_t clock, int flags), noexcept, opened, clock, flags)
ROUTE(int, inotify_init, (), noexcept, opened)
ROUTE(int, inotify_init1, (int flags), noexcept, opened, flags)

// These may change a descriptor that they are given, and return it.
EXPORTED int signalfd(int given, const sigset_t *mask, int flags) noexcept {
    return opened_another("signalfd", given, NEXT(signalfd)(given, mask, flags));
}

EXPORTED int dup2(int from, int to) noexcept {
    make_way(to);
    return opened_another("dup2", from, NEXT(dup2)(from, to));
}

EXPORTED int dup3(int from, int to, int flags) noexcept {
    make_way(to);
    return opened("dup3", NEXT(dup3)(from, to, flags));
}

ROUTE_PAIR(pipe, (int *descriptors), descriptors, descriptors)
ROUTE_PAIR(pipe2, (int *descriptors, int flags), descriptors, descriptors, flags)
ROUTE_PAIR(socketpair, (int domain, int type, int protocol, int *descriptors), descriptors, domain, type,
           protocol, descriptors)

ROUTE(FILE *, fopen, (const char *path, const char *mode), , opened_stream, path, mode)
ROUTE(FILE *, fopen64, (const char *path, const char *mode), , opened_stream, path, mode)
ROUTE_GIVEN(FILE *, fdopen, (int descriptor, const char *mode), noexcept, opened_stream, descriptor,
            mode)
ROUTE(FILE *, tmpfile, (), , opened_stream)
ROUTE(FILE *, tmpfile64, (), , opened_stream)
ROUTE(FILE *, popen, (const char *command, const char *mode), , opened_stream, command, mode)
ROUTE(DIR *, opendir, (const char *path), , opened_directory, path)
ROUTE_GIVEN(DIR *, fdopendir, (int descriptor), , opened_directory, descriptor)

EXPORTED int close(int descriptor) {
    if (is_kept_open(descriptor)) [[unlikely]] {
        errno = EBADF;
        return -1;
    }
    if (wanted()) {
        const InsideChecker inside;
        k42mcx_fd_closing("close", descriptor);
    }
    return NEXT(close)(descriptor);
}

ROUTE_CLOSE(fclose, FILE *)
ROUTE_CLOSE(pclose, FILE *)
ROUTE_CLOSE(closedir, DIR *)
ROUTE_REOPEN(freopen)
ROUTE_REOPEN(freopen64)
}
