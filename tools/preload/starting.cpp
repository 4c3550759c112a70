// A process that goes on as another program says as which one: if nothing is heard of it again, k42mc run looks at
// that program's file for why. What libc starts by itself has no file of its own to say it in.
#include "base/errno_keeper.h"
#include "base/json_output.h"
#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "tools/preload/report_files.h"

#include <stdarg.h>
#include <unistd.h>

namespace {

using k42mc::internal::ErrnoKeeper;
using k42mc::internal::JsonOutput;

// In a file that nothing else was written to, and taken back where the process goes on as it is. A child that has its
// parent's memory leaves none of it changed.
class StartNote {
public:
    explicit StartNote(const char *program) {
        const ErrnoKeeper keep_errno;
        const InsideChecker inside;
        if (!json_is_unused())
            return;
        written_ = true;
        JsonOutput out(json_file.descriptor());
        out->print("{\"kind\":\"exec\",\"program\":");
        out.string(program);
        out->print("}\n");
        out->flush();
    }
    ~StartNote() {
        const ErrnoKeeper keep_errno;
        const InsideChecker inside;
        if (written_)
            empty_json();
    }
    StartNote(const StartNote &) = delete;
    StartNote &operator=(const StartNote &) = delete;

private:
    bool written_ = false;
};

auto next_execve() {
    return NEXT(execve);
}

auto next_execvp() {
    return NEXT(execvp);
}

auto next_execvpe() {
    return NEXT(execvpe);
}

// A child of fork could wait for the loader's lock for good.
[[gnu::constructor]] void look_all_up() {
    next_execve();
    next_execvp();
    next_execvpe();
}

size_t count(const char *first, va_list rest) {
    size_t arguments = 0;
    for (const char *argument = first; argument != nullptr; argument = va_arg(rest, const char *))
        ++arguments;
    return arguments;
}

} // namespace

// The arguments of a call that lists them, on its stack; `rest` is behind the null at their end then.
#define LIST_ARGUMENTS(first, rest)                                                                     \
    va_list rest;                                                                                       \
    va_start(rest, first);                                                                              \
    const size_t argument_count = count(first, rest);                                                   \
    va_end(rest);                                                                                       \
    auto **arguments = static_cast<char **>(__builtin_alloca((argument_count + 1) * sizeof(char *)));   \
    va_start(rest, first);                                                                              \
    arguments[0] = const_cast<char *>(first);                                                           \
    for (size_t i = 1; i <= argument_count; ++i)                                                        \
        arguments[i] = va_arg(rest, char *);

extern "C" {

EXPORTED int execve(const char *program, char *const *arguments, char *const *variables) noexcept {
    const StartNote note(program);
    return next_execve()(program, arguments, variables);
}

EXPORTED int execv(const char *program, char *const *arguments) noexcept {
    const StartNote note(program);
    return next_execve()(program, arguments, environ);
}

EXPORTED int execvp(const char *program, char *const *arguments) noexcept {
    const StartNote note(program);
    return next_execvp()(program, arguments);
}

EXPORTED int execvpe(const char *program, char *const *arguments, char *const *variables) noexcept {
    const StartNote note(program);
    return next_execvpe()(program, arguments, variables);
}

EXPORTED int execl(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    va_end(rest);
    const StartNote note(program);
    return next_execve()(program, arguments, environ);
}

EXPORTED int execlp(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    va_end(rest);
    const StartNote note(program);
    return next_execvp()(program, arguments);
}

EXPORTED int execle(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    char *const *const variables = va_arg(rest, char *const *);
    va_end(rest);
    const StartNote note(program);
    return next_execve()(program, arguments, variables);
}
}
