// Switches the checker on for the whole life of the process, as the environment asks:
//   K42MC_RUN_OUTPUT     the folder for this process's files, "<program>.<pid>.txt" and ".json"
//   K42MC_RUN_LIMIT      blocks count that have survived so many reports; 1 unless it is given
//   K42MC_RUN_EVERY      seconds from one report to the next
//   K42MC_RUN_SIGNAL     the number of a signal that asks for a report
//   K42MC_RUN_BACKTRACE  0 for no call chains
//   K42MC_RUN_FILTERS    filter lines for traces, one a line
//   K42MC_RUN_VERIFY     1 to examine the guards of the blocks that are left at exit
//   K42MC_RUN_FOLLOW     0 to leave programs that this one starts alone
// Without a folder, blocks are guarded and nothing is recorded.
#include "session.h"

#include "depth.h"

#include <k42mc/k42mc.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

extern "C" int __cxa_atexit(void (*function)(void *), void *argument, void *library);

namespace {

constinit const char *folder = nullptr;
constinit uint32_t limit = 1;
constinit bool verifies = false;
constinit FILE *sink = nullptr;
constinit int wakes_reporter = -1;
constinit int pause_seconds = 0;
constinit bool registers_exit = false;

constinit uintptr_t checker_begin = 0;
constinit uintptr_t checker_end = UINTPTR_MAX;

long number_in(const char *variable, long otherwise) {
    const char *text = getenv(variable);
    return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}

int open_file(const char *extension, int flags) {
    char path[4096];
    snprintf(path, sizeof path, "%s/%s.%d.%s", folder, program_invocation_short_name, getpid(),
             extension);
    return open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, 0666);
}

void write_json() {
    const int file = open_file("json", O_APPEND);
    if (file < 0)
        return;
    k42mcx_report_json(file, limit);
    close(file);
}

void report() {
    const InsideChecker inside;
    const int saved_errno = errno;
    MCReport(K42MC_BE32(limit));
    write_json();
    errno = saved_errno;
}

// ---- Reports while the process runs ----

void ask_for_report(int) {
    const int saved_errno = errno;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakes_reporter, &one, sizeof one);
    errno = saved_errno;
}

void *report_when_asked(void *) {
    const InsideChecker inside; // whatever this thread allocates is none of the program's
    for (;;) {
        pollfd request{.fd = wakes_reporter, .events = POLLIN, .revents = 0};
        const int ready = poll(&request, 1, pause_seconds > 0 ? pause_seconds * 1000 : -1);
        uint64_t requests;
        if (ready > 0 && read(wakes_reporter, &requests, sizeof requests) < 0)
            return nullptr; // somebody closed it
        if (ready >= 0)
            report();
    }
}

void start_reporter() {
    const int signal_number = static_cast<int>(number_in("K42MC_RUN_SIGNAL", 0));
    pause_seconds = static_cast<int>(number_in("K42MC_RUN_EVERY", 0));
    if (signal_number == 0 && pause_seconds <= 0)
        return;
    wakes_reporter = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const bool started = pthread_create(&thread, nullptr, report_when_asked, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!started)
        return;
    pthread_detach(thread);
    if (signal_number != 0) {
        struct sigaction action {};
        action.sa_handler = ask_for_report;
        action.sa_flags = SA_RESTART;
        sigaction(signal_number, &action, nullptr);
    }
}

// ---- The life of the checker ----

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

// Behind the destructors of all libraries. What is allocated later still is guarded.
void finish(void *) {
    if (sink == nullptr)
        return;
    {
        const InsideChecker inside;
        if (verifies)
            k42mcx_verify();
        report();
        MCDeinit();
    }
    sink = nullptr;
}

FILE *open_sink() {
    const int file = open_file("txt", O_TRUNC);
    // Away from the low numbers, which programs expect to be free.
    const int high = file >= 0 ? fcntl(file, F_DUPFD_CLOEXEC, 200) : -1;
    FILE *stream = fdopen(high >= 0 ? high : file, "w");
    if (high >= 0)
        close(file);
    if (stream != nullptr)
        setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    return stream;
}

// A child's report goes to a file of its own, on the same stream.
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
    const int file = open_file("txt", O_TRUNC);
    if (file < 0)
        return;
    dup3(file, fileno(sink), O_CLOEXEC);
    close(file);
}

void find_checker() {
    dl_find_object object;
    if (_dl_find_object(reinterpret_cast<void *>(&MCLock), &object) != 0)
        return;
    checker_begin = reinterpret_cast<uintptr_t>(object.dlfo_map_start);
    checker_end = reinterpret_cast<uintptr_t>(object.dlfo_map_end);
}

[[gnu::constructor]] void begin() {
    const InsideChecker inside;
    const int saved_errno = errno;
    find_checker();
    folder = getenv("K42MC_RUN_OUTPUT");
    if (number_in("K42MC_RUN_FOLLOW", 1) == 0)
        unsetenv("LD_PRELOAD");
    if (folder != nullptr)
        sink = open_sink();
    if (sink == nullptr)
        return;
    limit = static_cast<uint32_t>(number_in("K42MC_RUN_LIMIT", 1));
    verifies = number_in("K42MC_RUN_VERIFY", 0) != 0;
    const bool traces_off = number_in("K42MC_RUN_BACKTRACE", 1) == 0;
    {
        const SinkAsStandardError quiet;
        registers_exit = true;
        MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(traces_off ? MC_TYPE_LKBF | MC_TYPE_BT_OFF : 0));
        registers_exit = false;
        add_filters(traces_off);
    }
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    __cxa_atexit(finish, nullptr, nullptr);
    start_reporter();
    errno = saved_errno;
}

} // namespace

bool called_by_checker(const void *caller) {
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return address >= checker_begin && address < checker_end;
}

// What belongs to a library runs ahead of the library's destructors. The checker's exit report must come
// behind those of all libraries, so it belongs to none.
extern "C" [[gnu::visibility("default")]] int __cxa_atexit(void (*function)(void *), void *argument,
                                                           void *library) {
    using Register = int (*)(void (*)(void *), void *, void *);
    static constinit Register next = nullptr;
    if (next == nullptr) {
        const InsideChecker inside; // dlsym may allocate
        next = reinterpret_cast<Register>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    }
    return next(function, argument, registers_exit ? nullptr : library);
}
