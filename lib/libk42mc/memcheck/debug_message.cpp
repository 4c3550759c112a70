#include "fork.h"
#include "linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/sink.h"
#include "printing.h"
#include "trace.h"

#include <fcntl.h>
#include <stdarg.h>
#include <time.h>

namespace k42mc {

constinit pthread_mutex_t gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Chosen by the first message, for the rest of the process.
constinit FILE *gMCDebugFile = nullptr;

FILE *open_debug_file() {
    char path[1024];
    snprintf(path, sizeof path, "%s%s.%lx.debug.txt", K42MC_FALLBACK_DIR, platform::progname(),
             static_cast<unsigned long>(static_cast<uint32_t>(time(nullptr))));
    FILE *file = open_for_writing(path, O_TRUNC);
    if (file != nullptr)
        return file;
    fprintf(stderr, "%s: Failed to open %s. Using stderr instead\n", "MCDebugMsg", path);
    return stderr;
}

void write_call_chain(FILE *out) {
    fputs("---------- backtrace:\n", out);
    fflush(out);
    Trace trace;
    trace.capture(Trace::deepest);
    if (trace.count > 0) {
        platform::backtrace_symbols_fd(trace.frames, trace.count, fileno(out));
        fputs("------ end.\n", out);
    }
    fflush(out);
}

} // namespace
} // namespace k42mc

using namespace k42mc;

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
    if (gMCDebugFile == nullptr)
        gMCDebugFile = open_debug_file();
    fputs(message, gMCDebugFile);
    fflush(gMCDebugFile);
    if (with_backtrace)
        write_call_chain(gMCDebugFile);
    pthread_mutex_unlock(&gMCDebugLock);
}

K42MC_EXPORT(MCDebugMsg);
