#include "memcheck/sink.h"

#include "base/terminal.h"
#include "linkage/linkage.h"
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace k42mc::internal {

constinit FILE *gMCReportFile = nullptr;

namespace {

// The sink belongs to the parent process.
constinit bool sink_inherited = false;

// Of somebody else's stream that is the sink; null while it is not.
constinit DescriptorSource borrowed_descriptor = nullptr;

// The stream of all report files. Streams are made and closed with a lock of libc's, which fflush(NULL)
// holds while it waits for standard error; so one stream is made ahead of all locks, for good, and what
// is opened and closed below it are descriptors.
constinit FILE *file_stream = nullptr;
constinit int file_descriptor = -1;
constinit char file_buffer[4096] = {};

// The folder that the process chose, with its last slash; empty: none.
constinit char own_folder[PATH_MAX + 1] = "";

// Of the file opened last: its path, and the path without the extension.
constexpr size_t path_room = PATH_MAX + NAME_MAX;
constinit char path[path_room] = "";
constinit char stem[path_room] = "";
constinit bool stem_in_own_folder = false;

ssize_t write_to_file(void *, const char *bytes, size_t size) {
    platform::write_all(file_descriptor, bytes, size);
    return static_cast<ssize_t>(size);
}

bool is_regular(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
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
    if (static_cast<size_t>(snprintf(path, sizeof path, "%s%s%s", stem, suffix, extension)) <
        sizeof path)
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

int open_in_folders(const char *extension, bool for_child) {
    const time_t now = time(nullptr);
    stem_in_own_folder = own_folder[0] != '\0' && make_folder(own_folder);
    if (stem_in_own_folder) {
        name_stem(own_folder, now);
        const int descriptor = open_numbered(extension);
        if (descriptor >= 0)
            return descriptor;
        stem_in_own_folder = false;
    }
    const auto open_in = [&](const char *directory) {
        if (for_child)
            return open_for_child(directory, now, extension);
        name_stem(directory, now);
        return open_stem("", extension, O_TRUNC);
    };
    const int descriptor = make_folder(K42MC_REPORT_DIR) ? open_in(K42MC_REPORT_DIR) : -1;
    return descriptor >= 0 ? descriptor : open_in(K42MC_FALLBACK_DIR);
}

// A wrapper's line may be what opens the file.
void say(int descriptor) {
    static constinit char text[path_room + 256] = "";
    snprintf(text, sizeof text, descriptor >= 0 ? "MC: Reporting to \"%s\"\n" : "%s: %m\n", path);
    write_text(stderr, text, strlen(text));
}

void open_report_file(bool for_child) {
    file_descriptor = file_stream != nullptr ? open_in_folders(".txt", for_child) : -1;
    gMCReportFile = file_descriptor >= 0 ? file_stream : nullptr;
    sink_inherited = false;
    say(file_descriptor);
    if (file_descriptor >= 0)
        *strrchr(strcpy(stem, path), '.') = '\0';
}

bool is_file(const FILE *sink) {
    return sink != nullptr && sink != stderr && !sink_is_borrowed();
}

void close_file() {
    fflush(file_stream);
    close(file_descriptor);
    file_descriptor = -1;
}

void replace_inherited_sink() {
    close_file();
    open_report_file(true);
    if (gMCReportFile == nullptr)
        gMCReportFile = stderr;
}

} // namespace

void prepare_sink() {
    static constinit pthread_once_t prepared = PTHREAD_ONCE_INIT;
    pthread_once(&prepared, [] {
        const Printing printing;
        file_stream = fopencookie(nullptr, "w", {nullptr, write_to_file, nullptr, nullptr});
        if (file_stream != nullptr)
            setvbuf(file_stream, file_buffer, _IOFBF, sizeof file_buffer);
    });
}

int open_regular(const char *name, int flags) {
    // O_NONBLOCK: a pipe that somebody put there must not hold the process up.
    const int descriptor =
        open(name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | flags, 0666);
    if (descriptor < 0 || is_regular(descriptor))
        return descriptor;
    const int cause = errno;
    close(descriptor);
    errno = cause;
    return -1;
}

int open_beside_report(const char *extension) {
    const bool beside = is_file(MCSink());
    int descriptor;
    if (!beside)
        descriptor = open_in_folders(extension, false);
    else
        descriptor = stem_in_own_folder ? open_numbered(extension) : open_stem("", extension, O_TRUNC);
    if (descriptor < 0)
        say(descriptor);
    return descriptor;
}

int descriptor_of(FILE *out) {
    if (out == gMCReportFile && sink_is_borrowed())
        return borrowed_descriptor();
    return out == file_stream ? file_descriptor : fileno(out);
}

FILE *MCSink() {
    if (sink_inherited)
        replace_inherited_sink();
    return gMCReportFile != nullptr ? gMCReportFile : stderr;
}

void MCOpenSink(int to_file) {
    if (sink_is_borrowed())
        return;
    if (!to_file) {
        MCCloseSink();
        gMCReportFile = stderr;
        fputs("MC: Reporting to stderr\n", stderr);
    } else if (!is_file(gMCReportFile)) {
        open_report_file(false);
    }
}

void borrow_sink(FILE *stream, DescriptorSource descriptor) {
    gMCReportFile = stream;
    borrowed_descriptor = descriptor;
}

bool sink_is_borrowed() {
    return borrowed_descriptor != nullptr;
}

void MCCloseSink() {
    if (is_file(gMCReportFile))
        close_file();
    gMCReportFile = nullptr;
    borrowed_descriptor = nullptr;
    sink_inherited = false;
}

void MCSinkLine(const char *name, const char *format, ...) {
    char rest[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(rest, sizeof rest, format, arguments);
    va_end(arguments);
    if (name == nullptr)
        name = "(null)";
    FILE *out = MCSink();
    write_text(out, name, strlen(name));
    write_text(out, rest, strlen(rest));
}

void write_backtrace(FILE *out, const char *title, void *const *frames, int count) {
    constexpr const char *closing_line = "------\n";
    write_text(out, title, strlen(title));
    platform::backtrace_symbols_fd(frames, count, descriptor_of(out));
    write_text(out, closing_line, strlen(closing_line));
}

void write_allocation_trace(FILE *out, void *const *frames, uint32_t count) {
    fflush(out);
    if (count > 0)
        write_backtrace(out, "Backtrace of the allocation:\n", frames, static_cast<int>(count));
    else
        fputs("No backtrace available\n------\n", out);
}

void flush_sink() {
    if (is_file(gMCReportFile))
        fflush(gMCReportFile);
}

void leave_sink_to_parent() {
    sink_inherited = is_file(gMCReportFile);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_report_folder(const char *folder) {
    const size_t length = folder != nullptr ? strnlen(folder, PATH_MAX) : 0;
    if (length == PATH_MAX)
        return ENAMETOOLONG;
    hook_fork();
    const int failure = pthread_mutex_lock(&gMCLock);
    if (failure != 0)
        return failure;
    if (length > 0)
        memcpy(own_folder, folder, length);
    own_folder[length] = '\0';
    if (length > 0 && folder[length - 1] != '/')
        strcpy(own_folder + length, "/");
    MCUnlock();
    return 0;
}

K42MC_EXPORT(k42mcx_report_folder);
