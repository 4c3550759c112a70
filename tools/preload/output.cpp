#include "tools/preload/output.h"

#include "base/json_output.h"
#include "k42mc_debug.h"
#include "stack_trace.h"
#include "tools/preload/depth.h"
#include "tools/preload/descriptors.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace k42mc::internal;

constinit char folder[PATH_MAX] = "";
constinit char program[NAME_MAX - sizeof ".4294967295.json"] = "";

// Open from the start: a server may give up the right to open files in the folder.
constinit ReportFile text("txt", O_TRUNC);
constinit ReportFile json("json", O_APPEND);

// Away from the low numbers, which programs expect to be free.
int move_up(int descriptor) {
    constexpr int lowest = 200;
    const int high = descriptor >= 0 ? fcntl(descriptor, F_DUPFD_CLOEXEC, lowest) : -1;
    if (high < 0)
        return descriptor;
    close(descriptor);
    return high;
}

// The process is about to stop in the midst of an operation: nothing here allocates or takes a lock.
void write_defect(std::span<const uintptr_t> block_trace) {
    const InsideChecker inside;
    const int file = json.descriptor();
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

bool ReportFile::open_with(int flags) {
    char path[PATH_MAX + NAME_MAX];
    snprintf(path, sizeof path, "%s/%s.%d.%s", folder, program, getpid(), extension_);
    descriptor_ = move_up(open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, 0666));
    struct stat status;
    if (descriptor_ < 0 || fstat(descriptor_, &status) != 0)
        return false;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    return true;
}

bool ReportFile::is_open() const {
    struct stat status;
    return descriptor_ >= 0 && fstat(descriptor_, &status) == 0 && status.st_dev == device_ &&
           status.st_ino == inode_;
}

bool ReportFile::open_anew() {
    if (is_open())
        close(descriptor_);
    return open_with(flags_);
}

int ReportFile::descriptor() {
    if (!is_open() && !open_with(O_APPEND))
        return -1;
    return descriptor_;
}

FILE *open_outputs() {
    FILE *stream = json.open_anew() && text.open_anew() ? fdopen(text.descriptor(), "w") : nullptr;
    if (stream != nullptr)
        setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    return stream;
}

void reopen_outputs(FILE *stream) {
    json.open_anew();
    text.open_anew();
    stream->_fileno = text.descriptor();
}

void check_output(FILE *stream) {
    stream->_fileno = text.descriptor();
}

void write_json(uint32_t limit) {
    const int file = json.descriptor();
    if (file < 0)
        return;
    k42mcx_report_json(file, limit);
    if (descriptors_watched())
        k42mcx_fd_report_json(file);
}

void note_defects() {
    at_defect = write_defect;
}

long number_in(const char *variable, long otherwise) {
    const char *value = getenv(variable);
    return value != nullptr ? strtol(value, nullptr, 10) : otherwise;
}
