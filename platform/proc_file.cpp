#include "platform/proc_file.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

unsigned digit_of(int byte) {
    if (byte >= '0' && byte <= '9')
        return static_cast<unsigned>(byte - '0');
    return byte >= 'a' && byte <= 'f' ? static_cast<unsigned>(byte - 'a') + 10 : 16;
}

} // namespace

// cppcheck-suppress uninitMemberVar ; what was not filled is never read
ProcFile::ProcFile(const char *path)
    : file_(static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC))) {}

ProcFile::~ProcFile() {
    if (is_open())
        syscall(SYS_close, file_);
}

bool ProcFile::fill() {
    long got;
    do {
        got = is_open() ? syscall(SYS_read, file_, buffer_, sizeof buffer_) : 0;
    } while (got < 0 && errno == EINTR);
    is_whole_ = is_whole_ && got >= 0;
    next_ = 0;
    filled_ = got > 0 ? static_cast<size_t>(got) : 0;
    return filled_ != 0;
}

int ProcFile::get() {
    return next_ < filled_ || fill() ? static_cast<unsigned char>(buffer_[next_++]) : -1;
}

uint64_t ProcFile::number(unsigned base, int &end) {
    uint64_t value = 0;
    while (digit_of(end = get()) < base)
        value = value * base + digit_of(end);
    return value;
}

void ProcFile::skip_line(int last) {
    while (last >= 0 && last != '\n')
        last = get();
}

bool ProcFile::has(const char *text, int &last) {
    for (; *text != '\0'; ++text)
        if ((last = get()) != static_cast<unsigned char>(*text))
            return false;
    return true;
}

} // namespace k42mc::internal::platform
