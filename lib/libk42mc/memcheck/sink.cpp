#include "memcheck/sink.h"

#include "base/kept_file.h"
#include "memcheck/report_file.h"
#include "platform/platform.h"

#include <unistd.h>

namespace k42mc::internal {
namespace {

struct Sink {
    enum Kind { none, standard_error, file, borrowed } kind = none;
    KeptFile report_file;
    pid_t owner = 0; // of the file; 0 in a child that has not yet written. Not every child is told of.
    int (*lender)() = nullptr; // of a borrowed sink
};

constinit Sink gMCReportFile;

// In place of a descriptor.
constexpr int to_standard_error = -1;
constexpr int to_nobody = -2; // what a lender no longer has

constinit char sink_buffer[8192] = {};

void say_path(bool opened) {
    const int cause = errno;
    StandardErrorText text;
    if (opened) {
        text->put("MC: Reporting to \"");
        text->put(report_path());
        text->put("\"\n");
    } else {
        text->put(report_path());
        text->print(": %s\n", strerrordesc_np(cause));
    }
}

void open_file(bool for_child) {
    const int descriptor = open_report_file(for_child);
    gMCReportFile = {};
    if (descriptor >= 0) {
        gMCReportFile.kind = Sink::file;
        gMCReportFile.report_file.keep(descriptor);
        gMCReportFile.owner = getpid();
    }
    say_path(descriptor >= 0);
}

// A child that has its parent's memory, too, can only leave the parent's sink alone.
int own_file() {
    const int descriptor = gMCReportFile.report_file.descriptor();
    if (descriptor >= 0 && gMCReportFile.owner == getpid())
        return descriptor;
    if (platform::borrows_memory())
        return to_standard_error;
    gMCReportFile.report_file.close();
    open_file(true);
    if (gMCReportFile.kind == Sink::none)
        stay_on_terminal();
    return sink_is_terminal() ? to_standard_error : gMCReportFile.report_file.descriptor();
}

int file_to_write() {
    switch (gMCReportFile.kind) {
    case Sink::borrowed: {
        const int lent = gMCReportFile.lender();
        return lent >= 0 ? lent : to_nobody;
    }
    case Sink::file:
        return own_file();
    default:
        return to_standard_error;
    }
}

} // namespace

void MCOpenSink(int to_file) {
    if (gMCReportFile.kind == Sink::borrowed || (to_file && gMCReportFile.kind == Sink::file))
        return;
    if (to_file) {
        open_file(false);
        return;
    }
    MCCloseSink();
    stay_on_terminal();
    StandardErrorText()->put("MC: Reporting to stderr\n");
}

void MCCloseSink() {
    if (gMCReportFile.kind == Sink::file)
        gMCReportFile.report_file.close();
    gMCReportFile = {};
}

bool sink_is_open() {
    return gMCReportFile.kind != Sink::none;
}

bool sink_is_terminal() {
    return gMCReportFile.kind == Sink::standard_error;
}

void stay_on_terminal() {
    gMCReportFile = {};
    gMCReportFile.kind = Sink::standard_error;
}

void borrow_sink(int (*descriptor)()) {
    gMCReportFile = {};
    gMCReportFile.kind = Sink::borrowed;
    gMCReportFile.lender = descriptor;
}

int open_beside_sink(const char *extension) {
    const bool beside = file_to_write() >= 0 && gMCReportFile.kind == Sink::file;
    const int descriptor = open_beside_report(beside, extension);
    if (descriptor < 0)
        say_path(false);
    return descriptor;
}

SinkText::SinkText()
    : file_(file_to_write()), terminal_(file_ == to_standard_error),
      text_(file_ == to_standard_error ? TextOutput(sink_buffer, terminal_)
                                       : TextOutput(sink_buffer, file_)) {}

void put_trace(TextOutput &out, const char *title, std::span<void *const> frames, SymbolLines *lines) {
    out.put(title);
    if (lines != nullptr)
        lines->put(out, frames);
    else
        out.symbols(frames);
    out.put("------\n");
}

void put_allocation_trace(TextOutput &out, std::span<void *const> frames, SymbolLines *lines) {
    if (!frames.empty())
        put_trace(out, "Backtrace of the allocation:\n", frames, lines);
    else
        out.put("No backtrace available\n------\n");
}

void leave_sink_to_parent() {
    gMCReportFile.owner = 0;
}

} // namespace k42mc::internal
