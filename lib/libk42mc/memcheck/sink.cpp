#include "memcheck/sink.h"

#include "platform/platform.h"
#include "terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace k42mc {

constinit FILE *gMCReportFile = nullptr;

namespace {

// The sink belongs to the parent process.
constinit bool sink_inherited = false;

constexpr size_t path_room = 1024;

struct OpenedFile {
    FILE *stream;
    char path[path_room];
};

void open_report(OpenedFile &file, const char *directory, time_t moment, int flags) {
    const platform::LocalTime at = platform::local_time(moment);
    snprintf(file.path, sizeof file.path, "%s%s.MC.%02d%02d%02d%02d%02d%02d.txt", directory,
             platform::progname(), at.year - 2000, at.month, at.day, at.hour, at.minute, at.second);
    file.stream = open_for_writing(file.path, flags);
}

// Opens a report file that no other process has: one named for the next second that is still free.
void open_own_report(OpenedFile &file, const char *directory, time_t now) {
    constexpr int most_seconds = 3600; // of forks within one second before giving up
    for (int ahead = 0; ahead < most_seconds; ++ahead) {
        open_report(file, directory, now + ahead, O_EXCL);
        if (file.stream != nullptr || errno != EEXIST)
            return;
    }
}

// A wrapper's line may be what opens the file.
void say(const OpenedFile &file) {
    char text[path_room + 256];
    snprintf(text, sizeof text, file.stream != nullptr ? "MC: Reporting to \"%s\"\n" : "%s: %m\n",
             file.path);
    write_text(stderr, text, strlen(text));
}

void open_report_file(bool own) {
    OpenedFile file{};
    const time_t now = time(nullptr);
    const auto open_in = [&](const char *directory) {
        if (own)
            open_own_report(file, directory, now);
        else
            open_report(file, directory, now, O_TRUNC);
    };
    if (mkdir(K42MC_REPORT_DIR, 0777) == 0 || errno == EEXIST)
        open_in(K42MC_REPORT_DIR);
    if (file.stream == nullptr)
        open_in(K42MC_FALLBACK_DIR);
    gMCReportFile = file.stream;
    sink_inherited = false;
    say(file);
}

bool is_regular(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        return true;
    errno = EEXIST;
    return false;
}

bool is_file(const FILE *sink) {
    return sink != nullptr && sink != stderr;
}

void replace_inherited_sink() {
    fclose(gMCReportFile);
    open_report_file(true);
    if (gMCReportFile == nullptr)
        gMCReportFile = stderr;
}

} // namespace

FILE *open_for_writing(const char *path, int flags) {
    // O_NONBLOCK: a pipe that somebody put there must not hold the process up.
    const int descriptor =
        open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | flags, 0666);
    if (descriptor < 0)
        return nullptr;
    FILE *stream = is_regular(descriptor) ? fdopen(descriptor, "w") : nullptr;
    if (stream == nullptr) {
        const int cause = errno;
        close(descriptor);
        errno = cause;
    }
    return stream;
}

FILE *MCSink() {
    if (sink_inherited)
        replace_inherited_sink();
    return gMCReportFile != nullptr ? gMCReportFile : stderr;
}

void MCOpenSink(int to_file) {
    if (!to_file) {
        MCCloseSink();
        gMCReportFile = stderr;
        fputs("MC: Reporting to stderr\n", stderr);
    } else if (!is_file(gMCReportFile)) {
        open_report_file(false);
    }
}

void MCCloseSink() {
    if (is_file(gMCReportFile))
        fclose(gMCReportFile);
    gMCReportFile = nullptr;
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
