// Switches the checker on for the whole life of the process, as the environment asks:
//   K42MC_RUN_OUTPUT     the folder for this process's files
//   K42MC_RUN_FOLDER     that folder's device and inode, "2049:131074", so that no other one is taken for it
//   K42MC_RUN_ID         a word for the first line of JSON, so that k42mc run knows its own files
//   K42MC_RUN_TEXT       1 for reports as text, too
//   K42MC_RUN_LIMIT      blocks count that have survived so many reports; 1 unless it is given
//   K42MC_RUN_SEARCH     1 to look which blocks are lost
//   K42MC_RUN_EVERY      seconds from one report to the next
//   K42MC_RUN_SIGNAL     the number of a signal that asks for a report
//   K42MC_RUN_BACKTRACE  0 for no stack traces
//   K42MC_RUN_DEPTH      how many frames they have at most
//   K42MC_RUN_FILTERS    filter lines for traces, one a line
//   K42MC_RUN_VERIFY     1 to examine the guards of the blocks that are left at exit
//   K42MC_RUN_QUARANTINE how many bytes of released blocks to keep back
//   K42MC_RUN_FILL       the byte that new blocks are filled with
//   K42MC_RUN_FDS        1 to watch descriptors, too
//   K42MC_RUN_PAGES      how many blocks come on one that gets pages of its own; nothing for none
//   K42MC_RUN_PAGE_FLAGS   K42MCX_PAGES_*
//   K42MC_RUN_PAGE_MEMORY  bytes for all of that; nothing for as many as usual
//   K42MC_RUN_FAIL_NTH, _ONE_IN, _SEED, _ABOVE, _AT, _ONLY, _NOT   which allocations fail, as k42mcx_fail has it
//   K42MC_RUN_FAIL_AT_CODE, _ONLY_CODE, _NOT_CODE   where the code of the source files lies that these match
//   K42MC_RUN_FAIL_FDS     1 for descriptors to fail as well
//   K42MC_RUN_FAIL_STACK   the first with this stack fails
//   K42MC_RUN_FAIL_STACKS  a file for the stacks that allocations have, each once
//   K42MC_RUN_FOLLOW     0 to leave programs that this one starts alone
// Without a folder that files can be made in, blocks are guarded and nothing is recorded.
#include "tools/preload/session.h"
#include "base/checker_lock.h"
#include "memcheck/registry.h"
#include "memcheck/state.h"
#include "pages/pool.h"
#include "platform/libc_heap.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/endings.h"
#include "tools/preload/exported.h"
#include "tools/preload/failing.h"
#include "tools/preload/leak_interface.h"
#include "tools/preload/next.h"
#include "tools/preload/output.h"
#include "tools/preload/own_allocator.h"
#include "tools/preload/report_files.h"
#include "tools/preload/reporter.h"
#include "tools/preload/settings.h"
#include "tools/preload/suppressed.h"
#include "wrappers/keep_back.h"
#include "wrappers/page_guards.h"

#include <k42mc/k42mc.h>

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" int __cxa_atexit(void (*function)(void *), void *argument, void *library);

namespace {

using k42mc::internal::Caller;
using k42mc::internal::checker_on;

constinit uint32_t limit = 1;
constinit bool searches = false;
constinit bool verifies = false;
constinit pid_t first_process = 0;

// Held for as long as a report takes: the end waits for the one that the reporter's thread is at.
constinit pthread_mutex_t report_lock = PTHREAD_MUTEX_INITIALIZER;
constinit bool recording = false;

class ReportLock {
public:
    ReportLock() { pthread_mutex_lock(&report_lock); }
    ~ReportLock() { pthread_mutex_unlock(&report_lock); }
    ReportLock(const ReportLock &) = delete;
    ReportLock &operator=(const ReportLock &) = delete;
};

bool report() {
    const Caller self = Caller::here();
    const InsideChecker inside;
    const int saved_errno = errno;
    const ReportLock lock;
    if (recording && checker_on())
        write_report(limit, searches ? &self : nullptr);
    errno = saved_errno;
    return recording;
}

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

void tell_of_blocks_without_pages() {
    const size_t count = k42mc::internal::blocks_without_pages();
    if (count == 0)
        return;
    char text[150];
    snprintf(text, sizeof text,
             "%zu block%s found no room for pages of %s own (--page-guards-memory), and had guards",
             count, count == 1 ? "" : "s", count == 1 ? "its" : "their");
    write_note(text);
}

void tell_of_blocks_left_open() {
    const size_t count = k42mc::internal::blocks_left_open();
    if (count == 0)
        return;
    char text[150];
    snprintf(text, sizeof text,
             "%zu released block%s whose pages the system would not bar: nobody sees who uses %s", count,
             count == 1 ? "" : "s", count == 1 ? "it" : "them");
    write_note(text);
}

void write_last_report(const Caller *searcher) {
    const MatterOfCourse said_by_reports;
    tell_of_blocks_without_pages();
    tell_of_blocks_left_open();
    sum_up_failures();
    if (verifies)
        k42mcx_verify();
    write_report(limit, searcher);
}

// Where a signal handler has interrupted the checker there is no way to a report, nor where the thread of the
// reports is the one that ends the process: both may hold what a report needs.
void finish(const Caller &caller) {
    if (checker_depth != 0)
        return;
    const InsideChecker inside;
    const ReportLock lock;
    if (!recording)
        return;
    recording = false;
    if (checker_on()) { // the program may know the checker
        write_last_report(searches ? &caller : nullptr);
        const MatterOfCourse said_by_reports;
        MCDeinit();
    }
    k42mc::internal::examine_quarantine(); // which may stop the process
}

// No more than the report: what switching off releases would enter the allocator.
void finish_by_signal(const Ending &ending) {
    if (ending.inside_checker) {
        write_ending(ending);
        return;
    }
    const Caller self = Caller::here();
    const ReportLock lock;
    if (!recording)
        return;
    recording = false;
    write_ending(ending);
    if (checker_on())
        write_last_report(searches && !ending.is_fault ? &self : nullptr);
}

void finish_at_exit(void *) {
    finish(Caller::here());
}

void finish_quickly() {
    finish(Caller::here());
}

// A child that ends this way has nothing to report: most blocks are its parent's.
void finish_in_haste() {
    if (getpid() == first_process) {
        finish(Caller::here());
    } else if (checker_depth == 0 && recording) {
        const InsideChecker inside;
        remove_unused_report_files();
    }
}

// A child's report goes to files of its own. The thread that may have held the lock is not there.
void after_fork_in_child() {
    const InsideChecker inside;
    report_lock = PTHREAD_MUTEX_INITIALIZER;
    if (!recording)
        return;
    k42mc::internal::leave_blocks_to_parent();
    renew_outputs();
    restart_reporter();
}

// ---- The start ----

// The exit report must come behind those of all libraries' destructors; one that the checker registers would
// be the shim's, as a library, and come ahead of them.
void switch_on() {
    const bool traces_off = number_in("K42MC_RUN_BACKTRACE", 1) == 0;
    const MatterOfCourse beginning;
    if (searches) // or a signal might have to, in the midst of an allocation
        k42mc::internal::platform::ThreadCaches::learn();
    k42mc::internal::gMCExitHooked = true;
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(traces_off ? MC_TYPE_LKBF | MC_TYPE_BT_OFF : 0));
    add_filters(traces_off);
    k42mcx_depth(static_cast<int>(number_in("K42MC_RUN_DEPTH", 16)));
    k42mc::internal::set_quarantine(static_cast<size_t>(number_in("K42MC_RUN_QUARANTINE", 0)));
    k42mcx_fill(static_cast<int>(number_in("K42MC_RUN_FILL", -1)));
}

void heed_program(bool search_wanted) {
    const ProgramsWishes wishes = ask_program();
    searches = search_wanted && !wishes.no_search;
    write_with_reports(wishes.suppressions, searches == search_wanted
                                                ? nullptr
                                                : "nobody looked whether blocks are lost: the program "
                                                  "has that turned off (__lsan_is_turned_off)");
}

// Behind whoever else wants the signals of faults.
void switch_on_page_guards() {
    const auto one_in = static_cast<uint32_t>(number_in("K42MC_RUN_PAGES", 0));
    const int failure = one_in == 0
                            ? 0
                            : k42mc::internal::switch_page_guards(
                                  one_in, static_cast<uint32_t>(number_in("K42MC_RUN_PAGE_FLAGS", 0)),
                                  static_cast<size_t>(number_in("K42MC_RUN_PAGE_MEMORY", 0)));
    if (failure == ENOMEM)
        write_note("no block has pages of its own: there are no addresses for them");
    else if (failure != 0)
        write_note("no block has pages of its own: the signals of faults cannot be had");
}

// They may have the shim linked in.
void leave_started_programs_alone() {
    unsetenv("LD_PRELOAD");
    unsetenv("K42MC_RUN_OUTPUT");
}

[[gnu::constructor]] void begin() {
    const InsideChecker inside;
    const int saved_errno = errno;
    const bool outputs = open_outputs();
    if (number_in("K42MC_RUN_FOLLOW", 1) == 0)
        leave_started_programs_alone();
    if (!outputs)
        return;
    if (program_is_left_alone()) {
        write_unchecked(why_left_alone());
        return;
    }
    recording = true;
    limit = static_cast<uint32_t>(number_in("K42MC_RUN_LIMIT", 1));
    heed_program(number_in("K42MC_RUN_SEARCH", 0) != 0);
    // What was written beside blocks in their pages is to be told, too.
    verifies = number_in("K42MC_RUN_VERIFY", 0) != 0 || number_in("K42MC_RUN_PAGES", 0) != 0;
    first_process = getpid();
    switch_on();
    if (number_in("K42MC_RUN_FDS", 0) != 0)
        watch_descriptors();
    pthread_atfork(nullptr, nullptr, after_fork_in_child);
    __cxa_atexit(finish_at_exit, nullptr, nullptr);
    report_ahead_of_endings(finish_by_signal);
    switch_on_page_guards();
    choose_failures();
    (void)at_quick_exit(finish_quickly);
    start_reporter(report);
    errno = saved_errno;
}

} // namespace

bool report_leaks(bool settles) {
    if (checker_depth != 0 || !searches)
        return false;
    const Caller self = Caller::here();
    const InsideChecker inside;
    const int saved_errno = errno;
    find_demangler();
    const ReportLock lock;
    const bool leaks = recording && checker_on() && write_leak_report(limit, self, settles);
    errno = saved_errno;
    return leaks;
}

extern "C" {

EXPORTED void _exit(int status) {
    finish_in_haste();
    NEXT(_exit)(status);
    __builtin_unreachable();
}

EXPORTED void _Exit(int status) noexcept {
    _exit(status);
}
}
