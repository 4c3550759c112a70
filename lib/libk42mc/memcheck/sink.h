// The report sink: what every line of the checker's reports goes to. All with gMCLock held.
#pragma once

#include "base/symbol_lines.h"
#include "base/text_output.h"

namespace k42mc::internal {

// Makes standard error (0) or a report file (1) the sink and says so on standard error. A report file
// that is open already, or a borrowed sink, is kept. Leaves no sink when no file can be opened.
void MCOpenSink(int to_file);

// Closes the sink if it is a report file, and leaves none.
void MCCloseSink();

bool sink_is_open();
bool sink_is_terminal();

// Makes standard error the sink where no report file could be opened.
void stay_on_terminal();

// Makes a file the sink that somebody else opened, keeps, and takes care of around a fork: a shim,
// whose reports go to a file of its own. It is asked for the descriptor each time. While the checker is off.
void borrow_sink(int (*descriptor)());

// As open_beside_report; says why not where it returns -1.
int open_beside_sink(const char *extension);

// Text for the sink as it is at this moment, or for standard error where there is none. In a child this is
// where a report file of its own takes the place of the parent's. One at a time: all share a buffer.
class SinkText {
public:
    SinkText();
    ~SinkText() { text_.flush(); }
    SinkText(const SinkText &) = delete;
    SinkText &operator=(const SinkText &) = delete;

    TextOutput &operator*() { return text_; }
    TextOutput *operator->() { return &text_; }

private:
    const int file_;
    const StandardError terminal_;
    TextOutput text_;
};

// A trace below a line: the title, a line a frame, the closing line. Listings of many keep the lines of frames.
void put_trace(TextOutput &out, const char *title, std::span<void *const> frames,
               SymbolLines *lines = nullptr);

// The same for a recorded block.
void put_allocation_trace(TextOutput &out, std::span<void *const> frames, SymbolLines *lines = nullptr);

// The child of a fork.
void leave_sink_to_parent();

} // namespace k42mc::internal
