// Switches the checker on for the whole life of the process, as the environment asks:
//   K42MC_RUN_OUTPUT     the folder for this process's files
//   K42MC_RUN_LIMIT      blocks count that have survived so many reports; 1 unless it is given
//   K42MC_RUN_EVERY      seconds from one report to the next
//   K42MC_RUN_SIGNAL     the number of a signal that asks for a report
//   K42MC_RUN_BACKTRACE  0 for no call chains
//   K42MC_RUN_FILTERS    filter lines for traces, one a line
//   K42MC_RUN_VERIFY     1 to examine the guards of the blocks that are left at exit
//   K42MC_RUN_FDS        1 to watch descriptors, too
//   K42MC_RUN_FOLLOW     0 to leave programs that this one starts alone
// Without a folder, blocks are guarded and nothing is recorded.
#include "tools/preload/session.h"

#include "platform/platform.h"
#include "platform/trace_buffer.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/next.h"
#include "tools/preload/output.h"
#include "tools/preload/reporter.h"

#include <k42mc/k42mc.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" int __cxa_atexit(void (*function)(void *), void *argument, void *library);

namespace {

constinit uint32_t limit = 1;
constinit bool verifies = false;
constinit FILE *sink = nullptr;
constinit pid_t first_process = 0;
constinit bool registers_exit = false;

void report() {
    const InsideChecker inside;
    const int saved_errno = errno;
    check_output(sink);
    MCReport(K42MC_BE32(limit));
    write_json(limit);
    errno = saved_errno;
}

// The checker takes standard error for its sink; here that is a file of the process's own for the
// moment, so that nothing is said among what the program says.
class SinkAsStandardError {
public:
    SinkAsStandardError() { stderr = sink; }
    ~SinkAsStandardError() { stderr = before_; }
    SinkAsStandardError(const SinkAsStandardError &) = delete;
    SinkAsStandardError &operator=(const SinkAsStandardError &) = delete;

private:
    FILE *const before_ = stderr;
};

void add_filters(bool traces_off) {
    char *line = getenv("K42MC_RUN_FILTERS");
    if (line == nullptr)
        return;
    char *lines = strdup(line);
    for (char *rest = lines; (line = strsep(&rest, "\n")) != nullptr;)
        if (*line != '\0')
            MCBTFilterSet(line, traces_off);
    free(lines);
}

// ---- The end: behind the destructors of all libraries. What is allocated later still is guarded. ----

void finish() {
    if (sink == nullptr)
        return;
    const InsideChecker inside;
    check_output(sink);
    if (verifies)
        k42mcx_verify();
    report();
    MCDeinit();
    sink = nullptr;
}

void finish_at_exit(void *) {
    finish();
}

// Of a child that ends this way most blocks are its parent's. In a signal handler that has interrupted
// the checker there is no way to a report.
void finish_in_haste() {
    if (checker_depth == 0 && getpid() == first_process)
        finish();
}

// ---- Fork: a child's report goes to a file of its own, on the same stream. ----

constinit FILE *standard_error = nullptr;

void before_fork() {
    standard_error = stderr;
    if (sink != nullptr)
        stderr = sink;
}

void after_fork_in_parent() {
    stderr = standard_error;
}

void after_fork_in_child() {
    stderr = standard_error;
    if (sink == nullptr)
        return;
    const InsideChecker inside;
    reopen_outputs(sink);
}

// ---- The start ----

void switch_on() {
    const SinkAsStandardError quiet;
    const bool traces_off = number_in("K42MC_RUN_BACKTRACE", 1) == 0;
    registers_exit = true;
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(traces_off ? MC_TYPE_LKBF | MC_TYPE_BT_OFF : 0));
    registers_exit = false;
    add_filters(traces_off);
}

[[gnu::constructor]] void begin() {
    const InsideChecker inside;
    const int saved_errno = errno;
    if (number_in("K42MC_RUN_FOLLOW", 1) == 0)
        unsetenv("LD_PRELOAD");
    if (find_output_folder())
        sink = open_outputs();
    if (sink == nullptr)
        return;
    limit = static_cast<uint32_t>(number_in("K42MC_RUN_LIMIT", 1));
    verifies = number_in("K42MC_RUN_VERIFY", 0) != 0;
    first_process = getpid();
    note_defects();
    switch_on();
    if (number_in("K42MC_RUN_FDS", 0) != 0)
        watch_descriptors();
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    __cxa_atexit(finish_at_exit, nullptr, nullptr);
    (void)at_quick_exit(finish);
    start_reporter(report);
    errno = saved_errno;
}

} // namespace

bool called_by_checker(const void *caller) {
    const auto address = reinterpret_cast<const char *>(caller);
    return address > __ehdr_start && address <= etext;
}

extern "C" {

// What belongs to a library runs ahead of the library's destructors. The checker's exit report must come
// behind those of all libraries, so it belongs to none.
[[gnu::visibility("default")]] int __cxa_atexit(void (*function)(void *), void *argument,
                                                void *library) {
    return NEXT(__cxa_atexit)(function, argument, registers_exit ? nullptr : library);
}

[[gnu::visibility("default")]] void _exit(int status) {
    finish_in_haste();
    NEXT(_exit)(status);
    __builtin_unreachable();
}

[[gnu::visibility("default")]] void _Exit(int status) noexcept {
    _exit(status);
}
}
