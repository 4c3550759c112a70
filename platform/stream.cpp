#include "platform/platform.h"
#include "platform/unsanitized.h"

#include <sys/stat.h>

// Exported by libc, in no header of its.
extern "C" void _IO_list_lock(void);
extern "C" void _IO_list_unlock(void);
extern "C" void _IO_list_resetlock(void);

namespace k42mc::internal::platform {
namespace {

// Of the flags of libc's streams: the upper half says that this is one, and a closed one can do neither.
constexpr unsigned magic_mask = 0xFFFF0000;
constexpr unsigned magic = 0xFBAD0000;
constexpr unsigned no_reads = 4;
constexpr unsigned no_writes = 8;

} // namespace

K42MC_UNSANITIZED bool is_open_stream(const FILE *stream) {
    if (!readable(&stream->_flags, sizeof stream->_flags))
        return false;
    const auto flags = static_cast<unsigned>(*const_cast<const volatile int *>(&stream->_flags));
    constexpr unsigned closed = no_reads | no_writes;
    return (flags & magic_mask) == magic && (flags & closed) != closed;
}

// A directory begins with its descriptor. Of a freed one that is left, or something that is none.
K42MC_UNSANITIZED bool is_open_directory(const DIR *directory) {
    const auto *descriptor = reinterpret_cast<const volatile int *>(directory);
    struct stat status;
    return readable(directory, sizeof *descriptor) && fstat(*descriptor, &status) == 0 &&
           S_ISDIR(status.st_mode);
}

// Behind its lock, libc counts how often the thread has it.
bool hold_if_idle(FILE *stream) {
    if (ftrylockfile(stream) != 0)
        return false;
    if (static_cast<const int *>(stream->_lock)[1] == 1)
        return true;
    funlockfile(stream);
    return false;
}

void hold_stream_list() {
    _IO_list_lock();
}

void release_stream_list() {
    _IO_list_unlock();
}

void renew_stream_list() {
    _IO_list_resetlock();
}

} // namespace k42mc::internal::platform
