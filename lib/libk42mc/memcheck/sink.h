// The report sink: the stream that every line of the checker's reports goes to.
#pragma once

#include <stdio.h>
#include <time.h>

namespace k42mc {

// The stream as it was opened: standard error, a report file, or null while the checker is off. Only for
// comparing; whoever writes asks MCSink().
extern FILE *gMCReportFile;

// The stream to write to. Never null: standard error where there is no sink. In a forked child this is
// where a report file of its own takes the place of the parent's.
FILE *MCSink();

// Opening and closing a stream takes libc's lock on its list of streams, which a thread that flushes
// them all holds while it waits for standard error's, and that is taken ahead of our locks. So a
// function that changes the sink has one of these from before it takes locks until after it has released
// them: with a stream, if it may need one, that only has to be given its file, and room for one to be
// closed.
class SinkChange {
public:
    explicit SinkChange(bool may_open);
    ~SinkChange();
    SinkChange(const SinkChange &) = delete;
    SinkChange &operator=(const SinkChange &) = delete;

    // Makes standard error (0) or a report file (1) the sink and says so on standard error. A report
    // file that is open already is kept. Leaves gMCReportFile null when no file can be opened.
    void open(int to_file);

    // Closes the sink unless it is standard error, and leaves none.
    void close();

private:
    FILE *prepared_ = nullptr;
    FILE *closed_ = nullptr;
};

// A stream over a file that is created or truncated, never through a symbolic link, and closed on exec;
// `flags` adds to the open flags. Null with errno set.
FILE *open_for_writing(const char *path, int flags);

// Writes a line that begins with a name of any length to the sink, and flushes it. For the wrappers,
// which print with gMCLock held: standard error is written past the stream, whose lock comes before
// ours.
[[gnu::format(printf, 2, 3)]] void MCSinkLine(const char *name, const char *format, ...);

// Writes a trace below a line that is out already: the title, a line a frame, the closing line.
void write_backtrace(FILE *out, const char *title, void *const *frames, int count);

// Around a fork: what is buffered is written by the parent alone.
void flush_sink();
void leave_sink_to_parent();

} // namespace k42mc
