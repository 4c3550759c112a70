#include "base/errno_keeper.h"
#include "base/fork.h"
#include "base/kept_file.h"
#include "base/locks.h"
#include "base/text_output.h"
#include "linkage/linkage.h"
#include "memcheck/debug_stream.h"
#include "memcheck/report_file.h"
#include "platform/platform.h"
#include "stack_trace.h"

#include <fcntl.h>
#include <stdarg.h>
#include <time.h>

namespace k42mc::internal {

constinit pthread_mutex_t gMCDebugLock = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Chosen by the first message, for the rest of the process.
constinit enum { not_chosen, file, standard_error } debug_stream = not_chosen;
constinit KeptFile gMCDebugFile;
constinit char path[1024] = "";

void choose_debug_stream() {
    snprintf(path, sizeof path, "%s%s.%lx.debug.txt", K42MC_FALLBACK_DIR, platform::progname(),
             static_cast<unsigned long>(static_cast<uint32_t>(time(nullptr))));
    const int descriptor = open_regular(path, O_TRUNC);
    gMCDebugFile.keep(descriptor);
    debug_stream = descriptor >= 0 ? file : standard_error;
    if (descriptor >= 0)
        return;
    StandardErrorText text;
    text->put("MCDebugMsg: Failed to open ");
    text->put(path);
    text->put(". Using stderr instead\n");
}

// -1 for standard error. Where the process has closed the file, it is opened again.
int descriptor_to_write() {
    if (debug_stream == not_chosen)
        choose_debug_stream();
    if (debug_stream == file && gMCDebugFile.descriptor() < 0)
        gMCDebugFile.keep(open_regular(path, O_APPEND));
    return gMCDebugFile.descriptor();
}

void put_message(TextOutput &out, const char *message, const StackTrace *trace) {
    out.put(message);
    if (trace == nullptr)
        return;
    out.put("---------- backtrace:\n");
    if (trace->count > 0) {
        out.symbols(trace->innermost(StackTrace::deepest));
        out.put("------ end.\n");
    }
}

void write_message(const char *message, const StackTrace *trace) {
    const int descriptor = descriptor_to_write();
    if (descriptor < 0) {
        put_message(*StandardErrorText(), message, trace);
        return;
    }
    char buffer[512];
    TextOutput out(buffer, descriptor);
    put_message(out, message, trace);
    out.flush();
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
    StackTrace trace;
    if (with_backtrace)
        trace.capture(StackTrace::deepest);
    hook_fork();
    const Printing printing;
    lock(gMCDebugLock, LockRank::debug_messages);
    write_message(message, with_backtrace ? &trace : nullptr);
    unlock(gMCDebugLock, LockRank::debug_messages);
}

K42MC_EXPORT(MCDebugMsg);
