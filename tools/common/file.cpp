#include "tools/common/file.h"

#include <cerrno>
#include <fcntl.h>

namespace {

// Returns 0 or what speaks against the file.
using Check = int (*)(const struct stat &status, off_t most_bytes);

File open_checked(const std::string &path, Check check, off_t most_bytes) {
    File file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status;
    if (!file.is_open() || fstat(file.descriptor(), &status) != 0)
        return {};
    const int fault = check(status, most_bytes);
    if (fault == 0)
        return file;
    close(file.release());
    errno = fault;
    return {};
}

} // namespace

File open_regular(const std::string &path, off_t most_bytes) {
    const auto check = [](const struct stat &status, off_t most) {
        return !S_ISREG(status.st_mode) ? EINVAL : status.st_size > most ? EFBIG : 0;
    };
    return open_checked(path, check, most_bytes);
}

File open_input(const std::string &path) {
    const auto check = [](const struct stat &status, off_t) {
        if (S_ISDIR(status.st_mode))
            return EISDIR;
        return S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode) ? 0 : EINVAL;
    };
    return open_checked(path, check, 0);
}
