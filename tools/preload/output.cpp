#include "tools/preload/output.h"

#include "base/json_output.h"
#include "base/printing.h"
#include "k42mc_debug.h"
#include "memcheck/json_report.h"
#include "memcheck/report.h"
#include "memcheck/sink.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/report_files.h"
#include "tools/preload/settings.h"
#include "wrappers/notice.h"

#include <algorithm>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

using namespace k42mc::internal;

constinit bool stopped_by_defect = false;

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(const StopNotice &notice) {
    const InsideChecker inside;
    const Printing printing;
    const int file = json_file.descriptor();
    stopped_by_defect = true;
    if (file < 0)
        return;
    StackTrace here;
    here.capture(StackTrace::deepest);
    static JsonOutput out(file); // once in a process, and the stack may be small
    out->print("{\"kind\":\"defect\",\"pid\":%d,\"text\":", getpid());
    out.string(k42mc_panic_string);
    out->print(",\"words\":");
    out.string(notice.words);
    out->print(",");
    out.chain("chain", here.innermost(StackTrace::deepest));
    out->print(",");
    out.chain("block", notice.trace());
    out->print("}\n");
    out->flush();
}

bool is_fault_at_address(const Ending &ending) {
    return ending.info != nullptr && ending.info->si_code > 0 &&
           (ending.signal_number == SIGSEGV || ending.signal_number == SIGBUS);
}

// Without the frames of a signal's handler and of what called it. Readers look for the call ahead of an
// address; here it is the instruction itself.
void put_trace_from(JsonOutput &out, void *place) {
    StackTrace here;
    here.capture(StackTrace::deepest);
    std::span<void *> trace(here.frames, static_cast<size_t>(here.count));
    const auto at = std::ranges::find(trace, place);
    if (at != trace.end()) {
        *at = static_cast<char *>(place) + 1;
        trace = trace.subspan(static_cast<size_t>(at - trace.begin()));
    }
    out.chain("chain", trace);
}

void put_kind(JsonOutput &out, const char *kind) {
    out->print("{\"kind\":\"%s\",\"pid\":%d,\"program\":", kind, getpid());
    out.string(program_name());
}

void write_remark(const char *kind, const char *member, const char *text) {
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    JsonOutput out(file);
    put_kind(out, kind);
    out->print(",\"%s\":", member);
    out.string(text);
    out->print("}\n");
    out->flush();
}

void search_and_write_json(int file, uint32_t limit) {
    LostBlocks lost;
    const char *const obstacle = lost.search("k42mc run", Caller::here(), limit);
    report_json(file, limit, obstacle == nullptr ? &lost : nullptr);
    if (obstacle == nullptr)
        return;
    char text[256];
    snprintf(text, sizeof text, "nobody looked whether blocks are lost: %s", obstacle);
    write_remark("note", "text", text);
}

constinit bool text_wanted = false;
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
}

void write_report(uint32_t limit, bool searches) {
    if (text_wanted)
        report(limit);
    else
        count_cycle();
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    if (searches)
        search_and_write_json(file, limit);
    else
        report_json(file, limit, nullptr);
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
}

void write_unchecked(const char *reason) {
    write_remark("unchecked", "reason", reason);
}

void write_note(const char *text) {
    write_remark("note", "text", text);
}

void write_ending(const Ending &ending) {
    const int file = json_file.descriptor();
    if (stopped_by_defect || file < 0)
        return;
    JsonOutput out(file);
    put_kind(out, "signal");
    out->print(",\"name\":\"SIG%s\",", sigabbrev_np(ending.signal_number));
    if (is_fault_at_address(ending))
        out->print("\"address\":\"%p\",", ending.info->si_addr);
    put_trace_from(out, ending.place);
    out->print("}\n");
    out->flush();
}

MatterOfCourse::MatterOfCourse() {
    matter_of_course = !text_wanted;
}

MatterOfCourse::~MatterOfCourse() {
    matter_of_course = false;
}
