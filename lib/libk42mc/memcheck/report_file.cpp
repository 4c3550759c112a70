#include "memcheck/report_file.h"

#include "base/checker_lock.h"
#include "base/fork.h"
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace k42mc::internal {
namespace {

// The folder that the process chose, with its last slash; empty: none.
constinit char own_folder[PATH_MAX + 1] = "";

// Paths in the defined folders are cut at this length.
constexpr size_t longest_defined_path = 1023;

// Of the file opened last: its path, and the path without the extension.
constinit char path[PATH_MAX + NAME_MAX] = "";
constinit char stem[sizeof path] = "";
constinit bool stem_in_own_folder = false;

bool is_own_regular(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid())
        return true;
    errno = EEXIST;
    return false;
}

void name_stem(const char *directory, time_t moment) {
    const platform::LocalTime at = platform::local_time(moment);
    snprintf(stem, sizeof stem, "%s%s.MC.%02d%02d%02d%02d%02d%02d", directory, platform::progname(),
             at.year - 2000, at.month, at.day, at.hour, at.minute, at.second);
}

int open_stem(const char *suffix, const char *extension, int flags) {
    const auto length =
        static_cast<size_t>(snprintf(path, sizeof path, "%s%s%s", stem, suffix, extension));
    if (!stem_in_own_folder)
        path[longest_defined_path] = '\0';
    if (length < sizeof path)
        return open_regular(path, flags);
    errno = ENAMETOOLONG;
    return -1;
}

// Truncates nothing: puts the first number that is free into the name.
int open_numbered(const char *extension) {
    constexpr unsigned most_numbers = 10000;
    int descriptor = open_stem("", extension, O_EXCL);
    for (unsigned number = 1; descriptor < 0 && errno == EEXIST && number < most_numbers; ++number) {
        char suffix[16];
        snprintf(suffix, sizeof suffix, "-%u", number);
        descriptor = open_stem(suffix, extension, O_EXCL);
    }
    return descriptor;
}

// Opens a file that no other process has: one named for the next second that is still free.
int open_for_child(const char *directory, time_t now, const char *extension) {
    constexpr int most_seconds = 3600; // of forks within one second before giving up
    int descriptor = -1;
    for (int ahead = 0; ahead < most_seconds; ++ahead) {
        name_stem(directory, now + ahead);
        descriptor = open_stem("", extension, O_EXCL);
        if (descriptor >= 0 || errno != EEXIST)
            break;
    }
    return descriptor;
}

bool make_folder(const char *directory) {
    return mkdir(directory, 0777) == 0 || errno == EEXIST;
}

int open_in_own_folder(time_t now, const char *extension) {
    stem_in_own_folder = own_folder[0] != '\0' && make_folder(own_folder);
    if (!stem_in_own_folder)
        return -1;
    name_stem(own_folder, now);
    const int descriptor = open_numbered(extension);
    stem_in_own_folder = descriptor >= 0;
    return descriptor;
}

int open_in_folders(const char *extension, bool for_child) {
    const time_t now = time(nullptr);
    const int in_own_folder = open_in_own_folder(now, extension);
    if (in_own_folder >= 0)
        return in_own_folder;
    const auto open_in = [&](const char *directory) {
        if (for_child)
            return open_for_child(directory, now, extension);
        name_stem(directory, now);
        return open_stem("", extension, O_TRUNC);
    };
    const int descriptor = make_folder(K42MC_REPORT_DIR) ? open_in(K42MC_REPORT_DIR) : -1;
    return descriptor >= 0 ? descriptor : open_in(K42MC_FALLBACK_DIR);
}

} // namespace

int open_regular(const char *name, int flags) {
    // O_NONBLOCK: a pipe that somebody put there must not hold the process up. What is truncated has
    // been looked at first.
    const int descriptor = open(
        name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (flags & ~O_TRUNC),
        0666);
    if (descriptor < 0)
        return -1;
    if (is_own_regular(descriptor) && ((flags & O_TRUNC) == 0 || ftruncate(descriptor, 0) == 0))
        return descriptor;
    const int cause = errno;
    close(descriptor);
    errno = cause;
    return -1;
}

int open_report_file(bool for_child) {
    const int descriptor = open_in_folders(".txt", for_child);
    if (descriptor >= 0) {
        strcpy(stem, path);
        if (char *const dot = strrchr(stem, '.'))
            *dot = '\0';
    }
    return descriptor;
}

int open_beside_report(bool there_is_one, const char *extension) {
    if (!there_is_one)
        return open_in_folders(extension, false);
    if (stem_in_own_folder)
        return open_numbered(extension);
    if (strlen(stem) + strlen(extension) > longest_defined_path) { // it would be the report file itself
        errno = ENAMETOOLONG;
        return -1;
    }
    return open_stem("", extension, O_TRUNC);
}

const char *report_path() {
    return path;
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_report_folder(const char *folder) {
    const size_t length = folder != nullptr ? strnlen(folder, PATH_MAX) : 0;
    if (length == PATH_MAX)
        return ENAMETOOLONG;
    hook_fork();
    const CheckerLock lock(take_checker_lock());
    if (!lock)
        return EINVAL;
    if (length > 0)
        memcpy(own_folder, folder, length);
    own_folder[length] = '\0';
    if (length > 0 && folder[length - 1] != '/')
        strcpy(own_folder + length, "/");
    return 0;
}

K42MC_EXPORT(k42mcx_report_folder);
