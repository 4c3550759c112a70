#include "memcheck/sink.h"

#include "platform/platform.h"
#include "printing.h"
#include "terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace k42mc {

constinit FILE *gMCReportFile = nullptr;

namespace {

// The sink belongs to the parent process.
constinit bool sink_inherited = false;

constexpr size_t path_room = 1024;

struct OpenedFile {
    int descriptor;
    char path[path_room];
};

bool is_regular(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        return true;
    errno = EEXIST;
    return false;
}

int open_regular(const char *path, int flags) {
    // O_NONBLOCK: a pipe that somebody put there must not hold the process up.
    const int descriptor =
        open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | flags, 0666);
    if (descriptor < 0 || is_regular(descriptor))
        return descriptor;
    const int cause = errno;
    close(descriptor);
    errno = cause;
    return -1;
}

void open_report(OpenedFile &file, const char *directory, time_t moment, int flags) {
    const platform::LocalTime at = platform::local_time(moment);
    snprintf(file.path, sizeof file.path, "%s%s.MC.%02d%02d%02d%02d%02d%02d.txt", directory,
             platform::progname(), at.year - 2000, at.month, at.day, at.hour, at.minute, at.second);
    file.descriptor = open_regular(file.path, flags);
}

// Opens a report file that no other process has: one named for the next second that is still free.
void open_own_report(OpenedFile &file, const char *directory, time_t now) {
    constexpr int most_seconds = 3600; // of forks within one second before giving up
    for (int ahead = 0; ahead < most_seconds; ++ahead) {
        open_report(file, directory, now + ahead, O_EXCL);
        if (file.descriptor >= 0 || errno != EEXIST)
            return;
    }
}

// A wrapper's line may be what opens the file.
void say(const OpenedFile &file) {
    char text[path_room + 256];
    snprintf(text, sizeof text, file.descriptor >= 0 ? "MC: Reporting to \"%s\"\n" : "%s: %m\n",
             file.path);
    write_text(stderr, text, strlen(text));
}

// Gives the stream a report file. Returns it, or null when no file can be opened or there is no stream.
FILE *open_report_file(FILE *stream, bool own) {
    OpenedFile file{.descriptor = -1, .path = {}};
    const time_t now = time(nullptr);
    const auto open_in = [&](const char *directory) {
        if (own)
            open_own_report(file, directory, now);
        else
            open_report(file, directory, now, O_TRUNC);
    };
    if (mkdir(K42MC_REPORT_DIR, 0777) == 0 || errno == EEXIST)
        open_in(K42MC_REPORT_DIR);
    if (file.descriptor < 0)
        open_in(K42MC_FALLBACK_DIR);
    if (file.descriptor >= 0 && stream == nullptr) {
        close(std::exchange(file.descriptor, -1));
        errno = ENOMEM;
    }
    say(file);
    if (file.descriptor < 0)
        return nullptr;
    dup3(file.descriptor, fileno(stream), O_CLOEXEC);
    close(file.descriptor);
    return stream;
}

bool is_file(const FILE *sink) {
    return sink != nullptr && sink != stderr;
}

// Nothing is in the stream's buffer: the parent has flushed it.
void replace_inherited_sink() {
    sink_inherited = false;
    gMCReportFile = open_report_file(gMCReportFile, true);
    if (gMCReportFile == nullptr)
        gMCReportFile = stderr;
}

} // namespace

FILE *open_for_writing(const char *path, int flags) {
    const int descriptor = open_regular(path, flags);
    FILE *stream = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
    if (descriptor >= 0 && stream == nullptr) {
        const int cause = errno;
        close(descriptor);
        errno = cause;
    }
    return stream;
}

SinkChange::SinkChange(bool may_open) {
    if (!may_open)
        return;
    const Printing printing;
    // Any descriptor will do that takes no file.
    const int descriptor = eventfd(0, EFD_CLOEXEC);
    prepared_ = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
    if (descriptor >= 0 && prepared_ == nullptr)
        ::close(descriptor);
}

SinkChange::~SinkChange() {
    const Printing printing;
    for (FILE *stream : {prepared_, closed_})
        if (stream != nullptr)
            fclose(stream);
}

void SinkChange::open(int to_file) {
    if (!to_file) {
        close();
        gMCReportFile = stderr;
        fputs("MC: Reporting to stderr\n", stderr);
    } else if (!is_file(gMCReportFile)) {
        gMCReportFile = open_report_file(prepared_, false);
        if (gMCReportFile != nullptr)
            prepared_ = nullptr;
    }
}

void SinkChange::close() {
    if (is_file(gMCReportFile)) {
        fflush(gMCReportFile);
        closed_ = gMCReportFile;
    }
    gMCReportFile = nullptr;
    sink_inherited = false;
}

FILE *MCSink() {
    if (sink_inherited)
        replace_inherited_sink();
    return gMCReportFile != nullptr ? gMCReportFile : stderr;
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
    platform::backtrace_symbols_fd(frames, count, fileno(out));
    write_text(out, closing_line, strlen(closing_line));
}

void flush_sink() {
    if (is_file(gMCReportFile))
        fflush(gMCReportFile);
}

void leave_sink_to_parent() {
    sink_inherited = is_file(gMCReportFile);
}

} // namespace k42mc
