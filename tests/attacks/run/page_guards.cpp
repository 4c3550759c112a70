// k42mc run --page-guards
// A program that handles faults itself, in each way there is, under a checker that lives by them: it gets those that are
// its own, finds its handlers when it asks, and the default where it set that.
#include "said_by.h"

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t page = 4096;
int failures = 0;
volatile sig_atomic_t handled = 0;
sigjmp_buf back;

void expect(bool holds, const char *what) {
    if (holds)
        return;
    printf("not so: %s\n", what);
    ++failures;
}

void open_page(int, siginfo_t *info, void *) {
    handled = handled + 1;
    mprotect(info->si_addr, page, PROT_READ | PROT_WRITE);
}

void go_back(int) {
    handled = handled + 1;
    siglongjmp(back, 1);
}

volatile char *barred() {
    return static_cast<char *>(mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

struct sigaction current() {
    struct sigaction action {};
    sigaction(SIGSEGV, nullptr, &action);
    return action;
}

void handles_by_sigaction() {
    expect(current().sa_handler == SIG_DFL, "the default is there at first");
    struct sigaction action {
    }, former{};
    action.sa_sigaction = open_page;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaction(SIGSEGV, &action, &former);
    expect(former.sa_handler == SIG_DFL, "the default was there");
    const struct sigaction found = current();
    expect(found.sa_sigaction == open_page && sigismember(&found.sa_mask, SIGUSR1) == 1,
           "the handler is found");
    handled = 0;
    *barred() = 'x';
    expect(handled == 1, "the fault came to the handler");
}

void handles_by(sighandler_t (*set)(int, sighandler_t), bool stays, const char *what) {
    signal(SIGSEGV, SIG_DFL);
    expect(set(SIGSEGV, go_back) == SIG_DFL, what);
    handled = 0;
    if (sigsetjmp(back, 1) == 0)
        *barred() = 'x';
    expect(handled == 1, what);
    expect(signal(SIGSEGV, SIG_DFL) == (stays ? go_back : SIG_DFL), what);
}

// What a child says that ends by a signal.
std::string said_until(int signal_number, const std::function<void()> &action) {
    int status = 0;
    std::string said = said_by(action, status);
    expect(WIFSIGNALED(status) && WTERMSIG(status) == signal_number, "the child ended by the signal");
    return said;
}

void overflows(const volatile char *above) {
    volatile char frame[page];
    frame[0] = *above;
    if (frame[0] != 0)
        overflows(frame);
    frame[1] = frame[0];
}

} // namespace

int main() {
    const auto uses_released = [] {
        volatile char *volatile block = static_cast<char *>(malloc(100));
        free(const_cast<char *>(block));
        block[8] = 'x';
    };
    handles_by_sigaction();
    expect(said_until(SIGABRT, uses_released).starts_with("k42mc detected WF: alloc(STD) usrPtr(0x"),
           "a use after release is told beside a handler of the program's");
    handles_by(signal, true, "signal");
    handles_by(sysv_signal, false, "sysv_signal");
    expect(said_until(SIGABRT, uses_released).starts_with("k42mc detected WF: alloc(STD) usrPtr(0x"),
           "a use after release is told beside the default");
    const auto hands_over = [] {
        char *volatile block = static_cast<char *>(malloc(100));
        free(block);
        static_cast<void>(!write(STDOUT_FILENO, block, 100));
    };
    expect(said_until(SIGABRT, hands_over).starts_with("k42mc detected RF: alloc(STD) usrPtr(0x"),
           "a released buffer that the system refuses is told");
    const auto lets_child_use_released = [] {
        volatile char *volatile block = static_cast<char *>(malloc(100));
        free(const_cast<char *>(block));
        if (const pid_t child = vfork(); child == 0) {
            block[8] = 'x';
            _exit(0);
        } else {
            waitpid(child, nullptr, 0);
        }
        block[9] = 'x';
    };
    expect(said_until(SIGABRT, lets_child_use_released)
               .starts_with("k42mc detected WF: alloc(STD) usrPtr(0x"),
           "a process goes on after a child that had its memory");
    const auto faults = [] { *barred() = 'x'; };
    expect(said_until(SIGSEGV, faults).empty(), "another fault is the program's");
    const auto overflow = [] { overflows("x"); };
    expect(said_until(SIGSEGV, overflow).empty(), "an overflow of the stack is the program's");
    return failures;
}
