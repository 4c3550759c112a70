#include "tools/preload/output.h"

#include "base/json_output.h"
#include "base/printing.h"
#include "k42mc_debug.h"
#include "memcheck/report.h"
#include "memcheck/sink.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/report_files.h"
#include "tools/preload/settings.h"

#include <unistd.h>

namespace {

using namespace k42mc::internal;

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(std::span<const uintptr_t> block_trace) {
    const InsideChecker inside;
    const Printing printing;
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    void *others[K42MC_GUARD_TRACE];
    size_t count = 0;
    for (const uintptr_t address : block_trace)
        if (address != 0 && count < K42MC_GUARD_TRACE)
            others[count++] = reinterpret_cast<void *>(address);
    StackTrace here;
    here.capture(StackTrace::deepest);
    JsonOutput out(file);
    out->print("{\"kind\":\"defect\",\"pid\":%d,\"text\":", getpid());
    out.string(k42mc_panic_string);
    out->print(",");
    out.chain("chain", here.innermost(StackTrace::deepest));
    out->print(",");
    out.chain("block", {others, count});
    out->print("}\n");
    out->flush();
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
    at_defect = write_defect;
    return true;
}

void renew_outputs() {
    create_report_files();
}

void write_report(uint32_t limit) {
    if (text_wanted)
        report(limit);
    else
        count_cycle();
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    k42mcx_report_json(file, limit);
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
}

MatterOfCourse::MatterOfCourse() {
    matter_of_course = !text_wanted;
}

MatterOfCourse::~MatterOfCourse() {
    matter_of_course = false;
}
