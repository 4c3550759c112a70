// The system refuses a buffer that it cannot touch with EFAULT, and the process hears of no fault. What is refused since a
// block's pages are barred is told as the access that it would have been.

// Each function under its own name: with large files the headers would give one name for another.
#undef _FILE_OFFSET_BITS

#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "wrappers/page_fault.h"

#include <errno.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

enum class What { reads, writes }; // the buffer

ssize_t handed(What what, const void *buffer, size_t size, ssize_t result) {
    if (result < 0 && errno == EFAULT) [[unlikely]]
        k42mc::internal::tell_refused_buffer(buffer, size, what == What::writes);
    return result;
}

// Whatever is copied by way of the stream's own buffer faults by itself. The error may be an older one: where the file
// has ended, nothing says whether this call has met it.
size_t handed(What what, const void *buffer, size_t size, size_t count, FILE *stream, size_t result) {
    if (result < count && errno == EFAULT && ferror_unlocked(stream) != 0 && feof_unlocked(stream) == 0)
        [[unlikely]]
        k42mc::internal::tell_refused_buffer(buffer, size * count, what == What::writes);
    return result;
}

} // namespace

// Functions of these parameters, of which `buffer` and `size` are two.
#define ROUTE(name, parameters, what, ...)                                                              \
    EXPORTED ssize_t name parameters {                                                                  \
        return handed(what, buffer, size, NEXT(name)(__VA_ARGS__));                                     \
    }
#define ROUTE_STREAM(name, parameters, what, ...)                                                       \
    EXPORTED size_t name parameters {                                                                   \
        return handed(what, buffer, size, count, stream, NEXT(name)(__VA_ARGS__));                      \
    }

extern "C" {

// What they become where the compiler checks buffers.
ssize_t __read_chk(int from, void *buffer, size_t size, size_t room);
ssize_t __pread_chk(int from, void *buffer, size_t size, off_t at, size_t room);
ssize_t __pread64_chk(int from, void *buffer, size_t size, off64_t at, size_t room);
ssize_t __recv_chk(int from, void *buffer, size_t size, size_t room, int flags);
ssize_t __recvfrom_chk(int from, void *buffer, size_t size, size_t room, int flags, sockaddr *address,
                       socklen_t *address_size);
size_t __fread_chk(void *buffer, size_t room, size_t size, size_t count, FILE *stream);
size_t __fread_unlocked_chk(void *buffer, size_t room, size_t size, size_t count, FILE *stream);

ROUTE(read, (int from, void *buffer, size_t size), What::writes, from, buffer, size)
ROUTE(__read_chk, (int from, void *buffer, size_t size, size_t room), What::writes, from, buffer, size,
      room)
ROUTE(pread, (int from, void *buffer, size_t size, off_t at), What::writes, from, buffer, size, at)
ROUTE(__pread_chk, (int from, void *buffer, size_t size, off_t at, size_t room), What::writes, from,
      buffer, size, at, room)
ROUTE(pread64, (int from, void *buffer, size_t size, off64_t at), What::writes, from, buffer, size, at)
ROUTE(__pread64_chk, (int from, void *buffer, size_t size, off64_t at, size_t room), What::writes, from,
      buffer, size, at, room)
ROUTE(recv, (int from, void *buffer, size_t size, int flags), What::writes, from, buffer, size, flags)
ROUTE(__recv_chk, (int from, void *buffer, size_t size, size_t room, int flags), What::writes, from,
      buffer, size, room, flags)
ROUTE(recvfrom,
      (int from, void *buffer, size_t size, int flags, sockaddr *address, socklen_t *address_size),
      What::writes, from, buffer, size, flags, address, address_size)
ROUTE(__recvfrom_chk,
      (int from, void *buffer, size_t size, size_t room, int flags, sockaddr *address,
       socklen_t *address_size),
      What::writes, from, buffer, size, room, flags, address, address_size)

ROUTE(write, (int to, const void *buffer, size_t size), What::reads, to, buffer, size)
ROUTE(pwrite, (int to, const void *buffer, size_t size, off_t at), What::reads, to, buffer, size, at)
ROUTE(pwrite64, (int to, const void *buffer, size_t size, off64_t at), What::reads, to, buffer, size, at)
ROUTE(send, (int to, const void *buffer, size_t size, int flags), What::reads, to, buffer, size, flags)
ROUTE(sendto,
      (int to, const void *buffer, size_t size, int flags, const sockaddr *address,
       socklen_t address_size),
      What::reads, to, buffer, size, flags, address, address_size)

ROUTE_STREAM(fread, (void *buffer, size_t size, size_t count, FILE *stream), What::writes, buffer, size,
             count, stream)
ROUTE_STREAM(__fread_chk, (void *buffer, size_t room, size_t size, size_t count, FILE *stream),
             What::writes, buffer, room, size, count, stream)
ROUTE_STREAM(fread_unlocked, (void *buffer, size_t size, size_t count, FILE *stream), What::writes,
             buffer, size, count, stream)
ROUTE_STREAM(__fread_unlocked_chk, (void *buffer, size_t room, size_t size, size_t count, FILE *stream),
             What::writes, buffer, room, size, count, stream)
ROUTE_STREAM(fwrite, (const void *buffer, size_t size, size_t count, FILE *stream), What::reads, buffer,
             size, count, stream)
ROUTE_STREAM(fwrite_unlocked, (const void *buffer, size_t size, size_t count, FILE *stream), What::reads,
             buffer, size, count, stream)
}
