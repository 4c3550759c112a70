#include "tools/preload/failing.h"

#include "platform/platform.h"
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
#include <string_view>
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
namespace platform = k42mc::internal::platform;

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

// What K42MC_RUN_FAIL_*_CODE had, as the environment may change.
struct Code {
    uint32_t verdict;
    const char *text; // null for none
};
constinit Code codes[3] = {};

const char *keep(const char *text) {
    const size_t size = text != nullptr ? strlen(text) + 1 : 0;
    void *const memory = size != 0 ? platform::map_memory(size) : nullptr;
    return memory != nullptr ? static_cast<const char *>(memcpy(memory, text, size)) : nullptr;
}

// "server:1190-12f0 libfoo.so.1:2040-20a7 "
bool has(const char *code, std::string_view module, uintptr_t offset) {
    while (*code != '\0') {
        const char *const colon = strchrnul(code, ':');
        char *end = nullptr;
        const auto first = strtoull(colon + (*colon != '\0'), &end, 16);
        const auto behind = strtoull(end + (*end != '\0'), &end, 16);
        if (module == std::string_view(code, static_cast<size_t>(colon - code)) && offset > first &&
            offset <= behind)
            return true;
        code = end + (*end != '\0');
    }
    return false;
}

uint32_t judge_place(const void *frame) {
    char path[4096];
    uintptr_t offset = 0;
    std::string_view module(path, platform::module_place(frame, path, offset));
    module.remove_prefix(module.rfind('/') + 1);
    uint32_t verdict = 0;
    for (const Code &code : codes)
        if (code.text != nullptr && has(code.text, module, offset))
            verdict |= code.verdict;
    return verdict;
}

// Whether there is any.
bool keep_code() {
    codes[0] = {k42mc::internal::is_at, keep(text_in("K42MC_RUN_FAIL_AT_CODE"))};
    codes[1] = {k42mc::internal::is_only, keep(text_in("K42MC_RUN_FAIL_ONLY_CODE"))};
    codes[2] = {k42mc::internal::never, keep(text_in("K42MC_RUN_FAIL_NOT_CODE"))};
    return codes[0].text != nullptr || codes[1].text != nullptr || codes[2].text != nullptr;
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
    if (keep_code())
        which.judge_place = judge_place;
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
