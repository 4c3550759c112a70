// A process that goes on as another program says as which one: if nothing is heard of it again, k42mc run looks at
// that program's file for why. Where nothing will be heard of a child that has its parent's memory, or that is spawned, a
// file of the child's says so. A program that cannot stand the shim is started without.
#include "base/errno_keeper.h"
#include "platform/platform.h"
#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "tools/preload/report_files.h"
#include "tools/preload/started_program.h"
#include "tools/shared/program_file.h"

#include <limits.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

namespace {

using k42mc::internal::ErrnoKeeper;
using k42mc::internal::platform::borrows_memory;

// Taken back where the process goes on as it is. A child that has its parent's memory leaves none of it changed.
class StartNote {
public:
    StartNote(const char *program, bool is_lost) {
        const ErrnoKeeper keep_errno;
        const InsideChecker inside;
        if (json_is_unused())
            written_ = write_start(json_file.descriptor(), program);
        else if (is_lost && borrows_memory())
            left_ = leave_start(getpid(), program);
    }
    ~StartNote() {
        const ErrnoKeeper keep_errno;
        const InsideChecker inside;
        if (written_)
            empty_json();
        if (left_)
            take_start_back(getpid());
    }
    StartNote(const StartNote &) = delete;
    StartNote &operator=(const StartNote &) = delete;

private:
    bool written_ = false; // to the process's own file
    bool left_ = false;    // in one for it
};

// What is known of a program ahead of its start.
struct Start {
    Start(const char *program, Search search, char *const *variables)
        : reason(reason_of(program, search)), without_shim(variables),
          is_lost(reason != nullptr || !bring_shim(variables)), needs_none(reason == brings_sanitizer) {}

    static const char *reason_of(const char *program, Search search) {
        const ErrnoKeeper keep_errno;
        const InsideChecker inside;
        return reason_against_program(program, search);
    }

    const char *const reason;
    const WithoutShim without_shim;
    const bool is_lost;    // nothing will be heard of it
    const bool needs_none; // of the shim
};

auto next_execve() {
    return NEXT(execve);
}

auto next_execvpe() {
    return NEXT(execvpe);
}

auto next_fexecve() {
    return NEXT(fexecve);
}

auto next_spawn() {
    return NEXT(posix_spawn);
}

auto next_spawnp() {
    return NEXT(posix_spawnp);
}

// A child of fork could wait for the loader's lock for good.
[[gnu::constructor]] void look_all_up() {
    next_execve();
    next_execvpe();
    next_fexecve();
    next_spawn();
    next_spawnp();
}

size_t count(const char *first, va_list rest) {
    size_t arguments = 0;
    for (const char *argument = first; argument != nullptr; argument = va_arg(rest, const char *))
        ++arguments;
    return arguments;
}

// The variables that a program is started with, on the stack of who starts it.
#define CHOOSE_VARIABLES(start, variables)                                                              \
    ((start).needs_none ? (start).without_shim.make(__builtin_alloca((start).without_shim.bytes()))     \
                        : (variables))

int go_on(const char *program, Search search, char *const *arguments, char *const *variables) {
    char *const none[] = {nullptr};
    const Start start(program, search, variables != nullptr ? variables : none);
    const StartNote note(program, start.is_lost);
    const auto next = search == Search::path ? next_execvpe() : next_execve();
    return next(program, arguments, CHOOSE_VARIABLES(start, variables));
}

using Spawn = decltype(posix_spawn);

int spawn(Spawn *next, Search search, pid_t *child, const char *program,
          const posix_spawn_file_actions_t *actions, const posix_spawnattr_t *attributes,
          char *const *arguments, char *const *variables) {
    char *const none[] = {nullptr};
    const Start start(program, search, variables != nullptr ? variables : none);
    pid_t number = 0;
    const int failure =
        next(&number, program, actions, attributes, arguments, CHOOSE_VARIABLES(start, variables));
    if (failure != 0)
        return failure;
    if (child != nullptr)
        *child = number;
    const ErrnoKeeper keep_errno;
    const InsideChecker inside;
    if (start.is_lost)
        leave_start(number, program);
    return 0;
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
    return go_on(program, Search::none, arguments, variables);
}

EXPORTED int execv(const char *program, char *const *arguments) noexcept {
    return go_on(program, Search::none, arguments, environ);
}

EXPORTED int execvp(const char *program, char *const *arguments) noexcept {
    return go_on(program, Search::path, arguments, environ);
}

EXPORTED int execvpe(const char *program, char *const *arguments, char *const *variables) noexcept {
    return go_on(program, Search::path, arguments, variables);
}

EXPORTED int fexecve(int file, char *const *arguments, char *const *variables) noexcept {
    char path[sizeof "/proc/self/fd/-2147483648"];
    snprintf(path, sizeof path, "/proc/self/fd/%d", file);
    char program[PATH_MAX] = "";
    (void)!readlink(path, program, sizeof program - 1);
    char *const none[] = {nullptr};
    const Start start(path, Search::none, variables != nullptr ? variables : none);
    const StartNote note(program, start.is_lost);
    return next_fexecve()(file, arguments, CHOOSE_VARIABLES(start, variables));
}

EXPORTED int execl(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    va_end(rest);
    return go_on(program, Search::none, arguments, environ);
}

EXPORTED int execlp(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    va_end(rest);
    return go_on(program, Search::path, arguments, environ);
}

EXPORTED int execle(const char *program, const char *first, ...) noexcept {
    LIST_ARGUMENTS(first, rest)
    char *const *const variables = va_arg(rest, char *const *);
    va_end(rest);
    return go_on(program, Search::none, arguments, variables);
}

EXPORTED int posix_spawn(pid_t *child, const char *program, const posix_spawn_file_actions_t *actions,
                         const posix_spawnattr_t *attributes, char *const *arguments,
                         char *const *variables) {
    return spawn(next_spawn(), Search::none, child, program, actions, attributes, arguments, variables);
}

EXPORTED int posix_spawnp(pid_t *child, const char *program, const posix_spawn_file_actions_t *actions,
                          const posix_spawnattr_t *attributes, char *const *arguments,
                          char *const *variables) {
    return spawn(next_spawnp(), Search::path, child, program, actions, attributes, arguments, variables);
}
}
