// The report sink: the stream that every line of the checker's reports goes to.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <time.h>

namespace k42mc::internal {

// The stream as it was opened: standard error, a report file, or null while the checker is off. Only for
// comparing; whoever writes asks MCSink().
extern FILE *gMCReportFile;

// The stream to write to. Never null: standard error where there is no sink. In a forked child this is
// where a report file of its own takes the place of the parent's.
FILE *MCSink();

// Makes what opening a report file takes. To be called with no lock held, by whoever may open one.
void prepare_sink();

// Makes standard error (0) or a report file (1) the sink and says so on standard error. A report file
// that is open already is kept. Leaves gMCReportFile null when no file can be opened.
void MCOpenSink(int to_file);

// Makes a stream the sink that somebody else opened, keeps, and takes care of around a fork: for a shim
// whose reports go to a file of its own. `descriptor` says where its bytes go at the moment. To be called
// while the checker is off; MCOpenSink keeps it.
using DescriptorSource = int (*)();
void borrow_sink(FILE *stream, DescriptorSource descriptor);
bool sink_is_borrowed();

// Closes the sink if it is a report file, and leaves none.
void MCCloseSink();

// Creates or opens a regular file for writing, never through a symbolic link, closed on exec; `flags`
// adds to the open flags. Returns a descriptor; -1 with errno set.
int open_regular(const char *name, int flags);

// Opens a file for more about the same: named as the report file is, with another extension (".json"),
// or as one would be. Never through a symbolic link. Returns a descriptor; -1 after saying why not.
int open_beside_report(const char *extension);

// Where the bytes of a sink go.
int descriptor_of(FILE *out);

// Writes a line that begins with a name of any length to the sink, and flushes it. For the wrappers,
// which print with gMCLock held: standard error is written past the stream, whose lock comes before
// ours.
[[gnu::format(printf, 2, 3)]] void MCSinkLine(const char *name, const char *format, ...);

// Writes a trace below a line that is out already: the title, a line a frame, the closing line.
void write_backtrace(FILE *out, const char *title, void *const *frames, int count);

// The same for a recorded block, below a line that may be in the stream's buffer.
void write_allocation_trace(FILE *out, void *const *frames, uint32_t count);

// Around a fork: what is buffered is written by the parent alone.
void flush_sink();
void leave_sink_to_parent();

} // namespace k42mc::internal
