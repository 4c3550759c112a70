#include "output.h"

#include "depth.h"
#include "descriptors.h"
#include "json_output.h"
#include "k42mc_debug.h"
#include "trace.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

using namespace k42mc;

constinit char folder[PATH_MAX] = "";
constinit char program[NAME_MAX - sizeof ".4294967295.json"] = "";

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(std::span<const uintptr_t> block_trace) {
    const InsideChecker inside;
    const int file = open_output("json", O_APPEND);
    if (file < 0)
        return;
    void *others[K42MC_GUARD_TRACE];
    size_t count = 0;
    for (const uintptr_t address : block_trace)
        if (address != 0 && count < K42MC_GUARD_TRACE)
            others[count++] = reinterpret_cast<void *>(address);
    Trace here;
    here.capture(Trace::deepest);
    JsonOutput out(file);
    out.print("{\"kind\":\"defect\",\"pid\":%d,\"text\":", getpid());
    out.string(k42mc_panic_string);
    out.print(",");
    out.chain("chain", here.innermost(Trace::deepest));
    out.print(",");
    out.chain("block", {others, count});
    out.print("}\n");
    out.flush();
    close(file);
}

} // namespace

bool find_output_folder() {
    const char *named = getenv("K42MC_RUN_OUTPUT");
    if (named == nullptr || strlen(named) >= sizeof folder)
        return false;
    strcpy(folder, named);
    snprintf(program, sizeof program, "%s", program_invocation_short_name);
    return true;
}

const char *program_name() {
    return *program != '\0' ? program : program_invocation_short_name;
}

int open_output(const char *extension, int flags) {
    char path[PATH_MAX + NAME_MAX];
    snprintf(path, sizeof path, "%s/%s.%d.%s", folder, program, getpid(), extension);
    return open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, 0666);
}

FILE *open_text_output() {
    constexpr int lowest = 200;
    const int file = open_output("txt", O_TRUNC);
    const int high = file >= 0 ? fcntl(file, F_DUPFD_CLOEXEC, lowest) : -1;
    FILE *stream = fdopen(high >= 0 ? high : file, "w");
    if (high >= 0)
        close(file);
    if (stream != nullptr)
        setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    return stream;
}

void write_json(uint32_t limit) {
    const int file = open_output("json", O_APPEND);
    if (file < 0)
        return;
    k42mcx_report_json(file, limit);
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
    close(file);
}

void note_defects() {
    at_defect = write_defect;
}

long number_in(const char *variable, long otherwise) {
    const char *text = getenv(variable);
    return text != nullptr ? strtol(text, nullptr, 10) : otherwise;
}
