#include "tools/preload/output.h"

#include "base/json_output.h"
#include "k42mc_debug.h"
#include "memcheck/sink.h"
#include "platform/platform.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"
#include "tools/preload/quiet_writing.h"
#include "tools/preload/report_files.h"

#include <errno.h>
#include <unistd.h>

namespace {

using namespace k42mc::internal;

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(std::span<const uintptr_t> block_trace) {
    const InsideChecker inside;
    QuietWriting quiet;
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
    out.print("{\"kind\":\"defect\",\"pid\":%d,\"text\":", getpid());
    out.string(k42mc_panic_string);
    out.print(",");
    out.chain("chain", here.innermost(StackTrace::deepest));
    out.print(",");
    out.chain("block", {others, count});
    out.print("}\n");
    quiet.ended_with(out.flush());
}

// The stream is none over a descriptor: whether that is still the file's is asked ahead of each write.
int text_descriptor() {
    const InsideChecker inside;
    return text_file.descriptor();
}

ssize_t write_text(void *, const char *bytes, size_t size) {
    const InsideChecker inside;
    QuietWriting quiet;
    errno = 0;
    if (const int descriptor = text_file.descriptor(); descriptor >= 0)
        platform::write_all(descriptor, bytes, size);
    quiet.ended_with(errno);
    return static_cast<ssize_t>(size);
}

} // namespace

bool open_outputs() {
    static constinit char buffer[BUFSIZ] = {};
    if (!find_report_folder() || !create_report_files())
        return false;
    FILE *stream = fopencookie(nullptr, "w", {nullptr, write_text, nullptr, nullptr});
    if (stream == nullptr)
        return false;
    setvbuf(stream, buffer, _IOLBF, sizeof buffer);
    borrow_sink(stream, text_descriptor);
    at_defect = write_defect;
    return true;
}

void renew_outputs() {
    create_report_files();
}

void write_json(uint32_t limit) {
    QuietWriting quiet;
    const int file = json_file.descriptor();
    if (file < 0)
        return;
    if (k42mcx_report_json(file, limit) != 0)
        quiet.ended_with(errno);
    if (descriptors_watched() && k42mcx_fd_report_json(file) != 0)
        quiet.ended_with(errno);
}
