#include "tools/preload/output.h"

#include "base/json_output.h"
#include "base/printing.h"
#include "memcheck/sink.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/report_files.h"
#include "wrappers/notice.h"

#include <unistd.h>

namespace {

using namespace k42mc::internal;

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(const StopNotice &notice) {
    const InsideChecker inside;
    const Printing printing;
    const int file = json_file.descriptor();
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

// Whether the number is still the file's is asked ahead of each piece of text.
int text_descriptor() {
    const InsideChecker inside;
    return text_file.descriptor();
}

} // namespace

bool open_outputs() {
    if (!find_report_folder() || !create_report_files())
        return false;
    borrow_sink(text_descriptor);
    record_stop = write_defect;
    return true;
}

void renew_outputs() {
    create_report_files();
}

void write_json(uint32_t limit) {
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    k42mcx_report_json(file, limit);
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
}
