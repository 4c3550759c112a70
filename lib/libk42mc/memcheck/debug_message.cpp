#include "base/fork.h"
#include "base/printing.h"
#include "base/terminal.h"
#include "linkage/linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/sink.h"
#include "stack_trace.h"

#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

namespace k42mc::internal {

constinit pthread_mutex_t gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Chosen by the first message, for the rest of the process: a descriptor, or standard error where no
// file can be opened. No stream of libc's, which are made with its list of them locked: fflush(NULL)
// holds that while it waits for each, and who has one locked may be waiting for our lock.
constexpr int not_chosen = -2;
constexpr int standard_error = -1;
constinit int gMCDebugFile = not_chosen;

void choose_debug_file() {
    static constinit char path[1024] = "";
    snprintf(path, sizeof path, "%s%s.%lx.debug.txt", K42MC_FALLBACK_DIR, platform::progname(),
             static_cast<unsigned long>(static_cast<uint32_t>(time(nullptr))));
    gMCDebugFile = open_regular(path, O_TRUNC);
    if (gMCDebugFile == standard_error)
        fprintf(stderr, "%s: Failed to open %s. Using stderr instead\n", "MCDebugMsg", path);
}

void write_message(const char *text) {
    if (gMCDebugFile == standard_error)
        write_text(stderr, text, strlen(text));
    else
        platform::write_all(gMCDebugFile, text, strlen(text));
}

void write_call_chain() {
    write_message("---------- backtrace:\n");
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    if (trace.count > 0) {
        platform::backtrace_symbols_fd(trace.frames, trace.count,
                                       gMCDebugFile == standard_error ? fileno(stderr) : gMCDebugFile);
        write_message("------ end.\n");
    }
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

void MCDebugMsg(int with_backtrace, const char *format, ...) {
    char message[256] = "No message.\n";
    if (format != nullptr && *format != '\0') {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(message, sizeof message, format, arguments);
        va_end(arguments);
    }
    hook_fork();
    const Printing printing;
    pthread_mutex_lock(&gMCDebugLock);
    if (gMCDebugFile == not_chosen)
        choose_debug_file();
    write_message(message);
    if (with_backtrace)
        write_call_chain();
    pthread_mutex_unlock(&gMCDebugLock);
}

K42MC_EXPORT(MCDebugMsg);
