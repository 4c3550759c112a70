#include "platform/handed_words.h"

#include "platform/proc_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

class HandedWords {
public:
    HandedWords(bool (*take)(void *argument, uint64_t word), void *argument)
        : take_(take), argument_(argument) {}

    bool read_epolls();
    bool read_timers();

private:
    void read_epoll(uint32_t descriptor);

    bool (*const take_)(void *argument, uint64_t word);
    void *const argument_;
    bool is_whole_ = true;
};

// The first thread may have ended, and has no descriptors then.
constexpr const char *own_status = "/proc/thread-self/status";

// The number that no descriptor reaches; 0 where the system does not tell. Listing those that are open takes far longer
// than to try all.
uint32_t descriptor_end() {
    ProcFile file(own_status);
    for (int last = 0; last >= 0; file.skip_line(last))
        if (file.has("FDSize:\t", last))
            return static_cast<uint32_t>(file.decimal(last));
    return 0;
}

// Sockets, of which there may be thousands, are told without their names, which take long to ask for.
bool may_be_epoll(uint32_t descriptor) {
    struct stat status;
    if (fstat(static_cast<int>(descriptor), &status) != 0)
        return errno != EBADF;
    const mode_t kind = status.st_mode & S_IFMT;
    return kind == 0 || kind == S_IFREG;
}

bool is_epoll(uint32_t descriptor) {
    constexpr const char *what = "anon_inode:[eventpoll]";
    char path[64], name[64];
    snprintf(path, sizeof path, "/proc/thread-self/fd/%u", descriptor);
    const ssize_t length = readlink(path, name, sizeof name);
    return length == static_cast<ssize_t>(strlen(what)) && memcmp(name, what, strlen(what)) == 0;
}

// Reads on behind a text, unless the line ends ahead of it.
bool go_behind(const char *text, ProcFile &file, int &last) {
    for (const char *at = text; *at != '\0';) {
        last = file.get();
        if (last < 0 || last == '\n')
            return false;
        at = last == *at ? at + 1 : last == *text ? text + 1 : text;
    }
    return true;
}

// "tfd:        5 events:       19 data:     55d0c0a1b2c0  pos:0 ino:3 sdev:f"
void HandedWords::read_epoll(uint32_t descriptor) {
    char path[64];
    snprintf(path, sizeof path, "/proc/thread-self/fdinfo/%u", descriptor);
    ProcFile file(path);
    for (int last = 0; last >= 0; file.skip_line(last)) {
        if (!file.has("tfd:", last) || !go_behind("data:", file, last))
            continue;
        uint64_t word;
        do {
            word = file.hexadecimal(last);
        } while (word == 0 && last == ' ');
        is_whole_ = take_(argument_, word) && is_whole_;
    }
    is_whole_ = is_whole_ && file.is_whole();
}

bool HandedWords::read_epolls() {
    const uint32_t end = descriptor_end();
    for (uint32_t descriptor = 0; descriptor < end; ++descriptor)
        if (may_be_epoll(descriptor) && is_epoll(descriptor))
            read_epoll(descriptor);
    return is_whole_ && end != 0;
}

// "signal: 14/000055d0c0a1b2c0". Not every kernel has the file.
bool HandedWords::read_timers() {
    ProcFile file("/proc/self/timers");
    for (int last = 0; last >= 0; file.skip_line(last)) {
        if (!file.has("signal: ", last))
            continue;
        file.decimal(last);
        if (last == '/')
            is_whole_ = take_(argument_, file.hexadecimal(last)) && is_whole_;
    }
    return is_whole_ && (!file.is_open() || file.is_whole());
}

} // namespace

bool each_handed_word(bool (*take)(void *argument, uint64_t word), void *argument) {
    HandedWords words(take, argument);
    return words.read_epolls() && words.read_timers();
}

} // namespace k42mc::internal::platform
