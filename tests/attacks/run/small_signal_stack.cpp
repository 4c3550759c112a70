// k42mc run --page-guards
// Processes that end in a handler on a stack of the usual small size: by the signal that ends them without the checker,
// and with a report that says where they were.
#include "report_of_process.h"

#include <csignal>
#include <cstdio>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/wait.h>

#ifndef AT_MINSIGSTKSZ
#define AT_MINSIGSTKSZ 51
#endif

namespace {

volatile char *volatile released;

// With room for what the system puts there for two signals, and nothing below.
void set_up_stack() {
    constexpr size_t most = 1 << 16, page = 4096;
    const size_t size = (2 * getauxval(AT_MINSIGSTKSZ) + 5000) & -16;
    char *const memory = static_cast<char *>(
        mmap(nullptr, page + most, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(memory, page, PROT_NONE);
    stack_t stack{};
    stack.ss_sp = memory + page;
    stack.ss_size = size;
    if (size > most || sigaltstack(&stack, nullptr) != 0)
        abort();
}

void handle(int signal_number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_ONSTACK;
    sigaction(signal_number, &action, nullptr);
}

void crash() {
    volatile char *volatile nowhere = reinterpret_cast<char *>(16);
    *nowhere = 'x';
}

bool ends_by(int signal_number, const char *said, const char *reported, void (*action)()) {
    int out[2], status = 0;
    if (pipe(out) != 0)
        abort();
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        set_up_stack();
        action();
        _exit(0);
    }
    close(out[1]);
    char text[1000];
    const ssize_t got = read(out[0], text, sizeof text);
    close(out[0]);
    waitpid(child, &status, 0);
    const std::string report = report_of(child);
    const bool holds = WIFSIGNALED(status) && WTERMSIG(status) == signal_number &&
                       std::string(text, size_t(got > 0 ? got : 0)).starts_with(said) &&
                       report.find(reported) != std::string::npos &&
                       report.find(R"("chain":[])") == std::string::npos;
    if (!holds)
        printf("status %d, not %s: %s\n", status, reported, report.c_str());
    return holds;
}

} // namespace

int main() {
    char *block = static_cast<char *>(malloc(100));
    released = block;
    free(block);
    bool all = ends_by(SIGSEGV, "", R"("name":"SIGSEGV","address":"0x10")", crash);
    all = ends_by(SIGABRT, "", R"("name":"SIGABRT")",
                  [] {
                      handle(SIGSEGV, [](int) { abort(); });
                      crash();
                  }) &&
          all;
    all = ends_by(SIGABRT, "k42mc detected WF: ", R"("kind":"defect")",
                  [] {
                      handle(SIGUSR1, [](int) { released[8] = 'x'; });
                      raise(SIGUSR1);
                  }) &&
          all;
    return all ? 0 : 1;
}
