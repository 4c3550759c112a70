#include "tools/preload/output.h"

#include "base/json_output.h"
#include "base/printing.h"
#include "k42mc_debug.h"
#include "memcheck/control_lock.h"
#include "memcheck/json_report.h"
#include "memcheck/report.h"
#include "memcheck/sink.h"
#include "memcheck/snapshot.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/report_files.h"
#include "tools/preload/settings.h"
#include "tools/preload/suppressed.h"
#include "wrappers/notice.h"

#include <algorithm>
#include <cinttypes>
#include <new>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

using namespace k42mc::internal;

constinit bool stopped_by_defect = false;
constinit bool text_wanted = false;

// The process is in the midst of an operation, and about to stop as a rule: nothing here allocates or takes a lock.
void write_defect(const StopNotice &notice) {
    const InsideChecker inside;
    const Printing printing;
    const int file = json_file.descriptor();
    stopped_by_defect = !notice.goes_on && !platform::borrows_memory();
    if (file < 0)
        return;
    StackTrace here;
    if (!notice.is_access)
        here.capture(StackTrace::deepest);
    alignas(
        JsonOutput) static constinit std::byte place[sizeof(JsonOutput)] = {}; // the stack may be small
    JsonOutput &out = *new (place) JsonOutput(file);
    out->print("{\"kind\":\"defect\",\"pid\":%d,\"text\":", getpid());
    out.string(k42mc_panic_string);
    out->print(",\"words\":");
    out.string(notice.words);
    out->print(",");
    out.chain("chain", notice.is_access ? notice.access : here.innermost(StackTrace::deepest));
    out->print(",");
    out.chain("block", notice.trace());
    if (!notice.release.empty()) {
        out->print(",");
        out.chain("release", notice.release);
    }
    out->print("%s}\n", notice.goes_on ? ",\"goes_on\":true" : "");
    out->flush();
}

bool is_fault_at_address(const Ending &ending) {
    return ending.info != nullptr && ending.info->si_code > 0 &&
           (ending.signal_number == SIGSEGV || ending.signal_number == SIGBUS);
}

void put_trace_to(JsonOutput &out, const void *context) {
    StackTrace trace;
    if (context != nullptr)
        trace.count = platform::backtrace_of_interrupted(context, trace.frames, StackTrace::deepest);
    else
        trace.capture(StackTrace::deepest);
    out.chain("chain", trace.innermost(StackTrace::deepest));
}

void put_kind(JsonOutput &out, const char *kind) {
    out->print("{\"kind\":\"%s\",\"pid\":%d,\"program\":", kind, getpid());
    out.string(program_name());
}

void write_remark(const char *kind, const char *member, const char *text,
                  std::span<void *const> trace = {}) {
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    JsonOutput out(file);
    put_kind(out, kind);
    out->print(",\"%s\":", member);
    out.string(text);
    if (!trace.empty()) {
        out->print(",");
        out.chain("chain", trace);
    }
    out->print("}\n");
    out->flush();
}

constinit const char *suppressions_of_program = nullptr;
constinit const char *note_for_reports = nullptr;
constinit bool first_report_begun = false;

void write_ahead_of_first_report() {
    if (first_report_begun)
        return;
    first_report_begun = true;
    if (suppressions_of_program != nullptr)
        write_remark("suppressions", "text", suppressions_of_program);
    if (note_for_reports != nullptr)
        write_remark("note", "text", note_for_reports);
}

// The search that stands for later ones. Never taken down: reports come late in the process's life.
alignas(LostBlocks) constinit std::byte settled_place[sizeof(LostBlocks)] = {};
constinit LostBlocks *settled = nullptr;

// Returns whether there was a search.
bool search_and_write_json(int file, uint32_t limit, const Caller &searcher, LostBlocks &lost) {
    const char *const obstacle =
        lost.search("k42mc run", searcher, limit, LostBlocks::Wanted::lost_and_holders);
    report_json(file, limit, obstacle == nullptr ? &lost : nullptr);
    if (obstacle == nullptr)
        return true;
    char text[256];
    snprintf(text, sizeof text, "nobody looked whether blocks are lost: %s", obstacle);
    write_remark("note", "text", text);
    return false;
}

// Whether any of those that a search has found is none that the program suppresses.
bool has_leaks(const LostBlocks &lost) {
    const Printing printing;
    Snapshot state;
    {
        const ControlLock lock("k42mc run");
        if (!lock || !registry_exists() || !state.take(0, &lost))
            return false;
    }
    return std::ranges::any_of(state.sites(), [](const SiteSummary &site) {
        return site.lost.count + site.indirectly_lost.count != 0 &&
               !is_suppressed(suppressions_of_program, site.key.trace());
    });
}

bool search_and_settle(int file, uint32_t limit, const Caller &searcher) {
    auto *const lost = new (settled_place) LostBlocks;
    if (!search_and_write_json(file, limit, searcher, *lost)) {
        lost->~LostBlocks();
        return false;
    }
    settled = lost;
    return has_leaks(*lost);
}

bool search_once(int file, uint32_t limit, const Caller &searcher) {
    LostBlocks lost;
    return search_and_write_json(file, limit, searcher, lost) && has_leaks(lost);
}

// Returns the descriptor of the JSON, or -1.
int begin_report(uint32_t limit) {
    if (text_wanted)
        report(limit);
    else
        count_cycle();
    const int file = json_file.descriptor();
    if (file >= 0)
        write_ahead_of_first_report();
    return file;
}

void end_report(int file) {
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
}

__thread bool matter_of_course = false;

// Whether the number is still the file's is asked ahead of each piece of text.
int text_descriptor() {
    if (matter_of_course)
        return -1;
    const InsideChecker inside;
    return text_file.descriptor();
}

} // namespace

bool open_outputs() {
    if (!find_report_folder() || !create_report_files())
        return false;
    text_wanted = number_in("K42MC_RUN_TEXT", 0) != 0;
    borrow_sink(text_descriptor);
    record_stop = write_defect;
    return true;
}

void renew_outputs() {
    create_report_files();
    first_report_begun = false;
    settled = nullptr; // a parent's search
}

void write_with_reports(const char *suppressions, const char *note) {
    suppressions_of_program = suppressions;
    note_for_reports = note;
}

void write_report(uint32_t limit, const Caller *searcher) {
    const int file = begin_report(limit);
    if (file < 0)
        return;
    if (LostBlocks lost; searcher != nullptr && settled == nullptr)
        search_and_write_json(file, limit, *searcher, lost);
    else
        report_json(file, limit, settled);
    end_report(file);
}

bool write_leak_report(uint32_t limit, const Caller &searcher, bool settles) {
    if (settles && settled != nullptr)
        return false;
    const int file = begin_report(limit);
    if (file < 0)
        return false;
    const bool leaks =
        settles ? search_and_settle(file, limit, searcher) : search_once(file, limit, searcher);
    end_report(file);
    platform::clear_unused_stack(); // addresses of lost blocks must not hold them the next time
    return leaks;
}

void write_unchecked(const char *reason) {
    write_remark("unchecked", "reason", reason);
}

void write_note(const char *text, std::span<void *const> trace) {
    write_remark("note", "text", text, trace);
}

void write_ending(const Ending &ending) {
    const int file = json_file.descriptor();
    if (stopped_by_defect || file < 0)
        return;
    JsonOutput out(file);
    put_kind(out, "signal");
    out->print(",\"name\":\"SIG%s\",", sigabbrev_np(ending.signal_number));
    if (is_fault_at_address(ending))
        out->print("\"address\":\"0x%" PRIxPTR "\",", reinterpret_cast<uintptr_t>(ending.info->si_addr));
    put_trace_to(out, ending.context);
    out->print("}\n");
    out->flush();
}

MatterOfCourse::MatterOfCourse() {
    matter_of_course = !text_wanted;
}

MatterOfCourse::~MatterOfCourse() {
    matter_of_course = false;
}
