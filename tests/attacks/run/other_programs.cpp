// k42mc run
// Processes go on as other programs by each of libc's ways, with their arguments and variables; where there is no such
// program they go on as they are.
#include "report_of_process.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <spawn.h>
#include <sys/wait.h>

namespace {

std::string own_path;
const char *self;
char *arguments[] = {const_cast<char *>("self"), const_cast<char *>("one"), const_cast<char *>("two"),
                     nullptr};
char *variables[] = {const_cast<char *>("MARK=new"), nullptr};

// What the other program makes of what it is given.
int judge(char **given) {
    for (size_t i = 0; i < std::size(arguments) - 1; ++i)
        if (strcmp(given[i], arguments[i]) != 0)
            return 1;
    return strcmp(getenv("MARK"), "new") == 0 ? 42 : 43;
}

struct Way {
    int (*go_on)();
    int status; // of the other program
};

constexpr Way ways[] = {
    {[] { return execv(self, arguments); }, 43},
    {[] { return execve(self, arguments, variables); }, 42},
    {[] { return execvp(self, arguments); }, 43},
    {[] { return execvpe(self, arguments, variables); }, 42},
    {[] { return execl(self, "self", "one", "two", nullptr); }, 43},
    {[] { return execlp(self, "self", "one", "two", nullptr); }, 43},
    {[] { return execle(self, "self", "one", "two", nullptr, variables); }, 42},
    {[] { return fexecve(open(self, O_RDONLY | O_CLOEXEC), arguments, variables); }, 42},
};

int status_of(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool goes_on(const Way &way) {
    const pid_t child = fork();
    if (child == 0)
        _exit(way.go_on());
    return status_of(child) == way.status;
}

bool is_said(const std::string &report, const char *program) {
    return report.find(std::string(R"({"kind":"exec","program":")") + program) != std::string::npos;
}

// Of children that have no file of their own, where nothing will be heard of them: the new variables leave the shim out.
bool says_what_borrowed_memory_goes_on_as() {
    const pid_t child = vfork();
    if (child == 0) {
        execve(self, arguments, variables);
        _exit(1);
    }
    const pid_t none = vfork();
    if (none == 0) {
        execve("/no/such/program", arguments, variables);
        _exit(errno == ENOENT ? 5 : 1);
    }
    return status_of(child) == 42 && is_said(report_of(child), self) && status_of(none) == 5 &&
           report_of(none).empty();
}

bool says_what_was_spawned() {
    pid_t child = 0;
    pid_t same = 0;
    const bool done =
        posix_spawn(&child, self, nullptr, nullptr, arguments, variables) == 0 &&
        posix_spawnp(&same, self, nullptr, nullptr, arguments, environ) == 0 &&
        posix_spawn(&same, "/no/such/program", nullptr, nullptr, arguments, variables) == ENOENT;
    return done && status_of(child) == 42 && status_of(same) == 43 && is_said(report_of(child), self) &&
           !is_said(report_of(same), self);
}

bool goes_on_in_borrowed_memory() {
    const std::string before = report_of(getpid());
    const pid_t child = vfork();
    if (child == 0) {
        execl(self, "self", "one", "two", nullptr);
        _exit(1);
    }
    return status_of(child) == 43 && report_of(getpid()) == before;
}

// Nothing of it is left where the report would be.
bool stays(const Way &way) {
    self = "/no/such/program";
    const pid_t child = fork();
    if (child == 0) {
        const bool failed = way.go_on() == -1 && (errno == ENOENT || errno == EINVAL);
        const bool unsaid = report_of(getpid()).find("exec") == std::string::npos;
        _exit(failed && unsaid ? 0 : 1);
    }
    self = own_path.c_str();
    return status_of(child) == 0 && report_of(child).empty();
}

} // namespace

int main(int count, char **given) {
    if (count == 3)
        return judge(given);
    own_path = std::filesystem::read_symlink("/proc/self/exe");
    self = own_path.c_str();
    setenv("MARK", "old", 1);
    for (const Way &way : ways)
        if (!goes_on(way) || !stays(way))
            return 1 + static_cast<int>(&way - ways);
    if (!goes_on_in_borrowed_memory())
        return 20;
    if (!says_what_borrowed_memory_goes_on_as())
        return 21;
    return says_what_was_spawned() ? 0 : 22;
}
