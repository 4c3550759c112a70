#include "tools/preload/failing.h"

#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/output.h"
#include "tools/preload/settings.h"
#include "wrappers/failures.h"

#include <k42mc/extra.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {

// Where k42mc run --gdb stops. What it has to do is to be called.
EXPORTED [[gnu::noinline]] void k42mc_allocation_fails() {
    asm volatile("");
}
}

namespace {

using k42mc::internal::Failures;
using k42mc::internal::PurposefulFailure;

constexpr size_t most_told = 20;

// Null for one that is not set.
const char *text_in(const char *variable) {
    const char *const text = getenv(variable);
    return text != nullptr && *text != '\0' ? text : nullptr;
}

constinit bool descriptors_may_fail = false;
constexpr int line_of_descriptors = -1; // of their calls' sites

void tell(const PurposefulFailure &failure) {
    if (k42mcx_failed() <= most_told) {
        char text[128];
        const int length = snprintf(text, sizeof text, "allocation %llu failed on purpose: ",
                                    static_cast<unsigned long long>(failure.number));
        const std::span rest = std::span(text).subspan(static_cast<size_t>(length));
        if (failure.site.line == line_of_descriptors)
            snprintf(rest.data(), rest.size(), "a descriptor by %s", failure.site.file);
        else
            snprintf(rest.data(), rest.size(), "%zu byte%s", failure.size, failure.size == 1 ? "" : "s");
        write_note(text, failure.trace);
    }
    k42mc_allocation_fails();
}

// By system calls, as libc's functions are places where threads are cancelled. The environment may have changed since, so
// the path is kept; all processes write to the end of that file, each stack in one piece.
constinit char stacks_file[4096] = "";

void list(uint64_t stack) {
    char line[32];
    const int length = snprintf(line, sizeof line, "%016llx\n", static_cast<unsigned long long>(stack));
    const long file =
        syscall(SYS_openat, AT_FDCWD, stacks_file, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0);
    if (file < 0)
        return;
    syscall(SYS_write, file, line, length);
    syscall(SYS_close, file);
}

// Whether there is one.
bool keep_stacks_file(const char *path) {
    if (path != nullptr && strlen(path) < sizeof stacks_file)
        strcpy(stacks_file, path);
    return *stacks_file != '\0';
}

} // namespace

void choose_failures() {
    Failures which = {};
    which.nth = static_cast<uint64_t>(number_in("K42MC_RUN_FAIL_NTH", 0));
    which.one_in = static_cast<uint32_t>(number_in("K42MC_RUN_FAIL_ONE_IN", 0));
    which.seed = static_cast<uint32_t>(number_in("K42MC_RUN_FAIL_SEED", 0));
    which.above = static_cast<size_t>(number_in("K42MC_RUN_FAIL_ABOVE", 0));
    which.at = text_in("K42MC_RUN_FAIL_AT");
    which.only = text_in("K42MC_RUN_FAIL_ONLY");
    which.except = text_in("K42MC_RUN_FAIL_NOT");
    if (const char *const stack = text_in("K42MC_RUN_FAIL_STACK"))
        which.stack = strtoull(stack, nullptr, 16);
    if (keep_stacks_file(text_in("K42MC_RUN_FAIL_STACKS")))
        which.new_stack = list;
    if (which.nth == 0 && which.one_in == 0 && which.above == 0 && which.at == nullptr &&
        which.stack == 0 && which.new_stack == nullptr)
        return;
    descriptors_may_fail = number_in("K42MC_RUN_FAIL_FDS", 0) != 0;
    k42mc::internal::failure_listener = tell;
    const int failure = k42mc::internal::choose_failures(which);
    if (failure != 0)
        write_note(failure == ENOMEM ? "no allocation fails: there is no memory to know stacks by"
                                     : "no allocation fails: a pattern is too long");
}

bool descriptor_fails(const char *function) {
    if (!descriptors_may_fail || checker_depth != 0)
        return false;
    const InsideChecker inside;
    if (!k42mc::internal::is_to_fail({function, line_of_descriptors}, 0))
        return false;
    errno = EMFILE;
    return true;
}

void sum_up_failures() {
    const size_t count = k42mcx_failed();
    if (count <= most_told)
        return;
    char text[128];
    snprintf(text, sizeof text, "%zu more allocations failed on purpose", count - most_told);
    write_note(text);
}
