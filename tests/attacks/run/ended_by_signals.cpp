// k42mc run
// Processes that a signal ends leave a whole report and end by that signal, wherever it strikes; and to the
// program, nobody handles it.
#include "report_of_process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // sigset, which programs use none the less

namespace {

// A child that holds a block of 1234 bytes when this returns.
template <class Action> pid_t start(Action action) {
    int ready[2];
    if (pipe(ready) != 0)
        exit(1);
    const pid_t child = fork();
    if (child == 0) {
        close(ready[0]);
        void *volatile left = malloc(1234);
        close(ready[left == nullptr ? 0 : 1]);
        action();
        _exit(0);
    }
    close(ready[1]);
    char nothing;
    if (read(ready[0], &nothing, 1) != 0)
        exit(1);
    close(ready[0]);
    return child;
}

// Whether it was ended by the signal, with its report.
bool ended_well(pid_t child, int number) {
    int status = 0;
    waitpid(child, &status, 0);
    const std::string report = report_of(child);
    const std::string name = std::string(R"("name":"SIG)") + sigabbrev_np(number);
    const bool whole = report.find(R"("kind":"end")") != std::string::npos &&
                       report.find(R"("largest":1234)") != std::string::npos &&
                       report.find(name) != std::string::npos;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != number || !whole)
        fprintf(stderr, "SIG%s: status %#x: %s\n", sigabbrev_np(number), static_cast<unsigned>(status),
                report.c_str());
    return WIFSIGNALED(status) && WTERMSIG(status) == number && whole;
}

void touch_nothing() {
    static volatile int *volatile nothing = nullptr;
    nothing[2] = 1;
}

bool faults_are_told() {
    return ended_well(start(touch_nothing), SIGSEGV) && ended_well(start(abort), SIGABRT) &&
           ended_well(start([] { raise(SIGSEGV); }), SIGSEGV) &&
           ended_well(start([] { raise(SIGTRAP); }), SIGTRAP);
}

void *allocate_for_ever(void *) {
    for (;;)
        free(malloc(static_cast<size_t>(rand()) % 1000));
}

// In the midst of the checker's work, and of the allocator's.
bool requests_are_told(int number) {
    const pid_t child = start([] {
        pthread_t thread;
        pthread_create(&thread, nullptr, allocate_for_ever, nullptr);
        allocate_for_ever(nullptr);
    });
    usleep(static_cast<useconds_t>(rand()) % 2000);
    kill(child, number);
    return ended_well(child, number);
}

bool is_default(const struct sigaction &action) {
    return action.sa_handler == SIG_DFL && action.sa_flags == 0;
}

bool looks_unhandled() {
    struct sigaction found {
    }, mine{};
    mine.sa_handler = SIG_IGN;
    sigaction(SIGTERM, nullptr, &found);
    bool right = is_default(found);
    right &= sigaction(SIGINT, &mine, &found) == 0 && is_default(found);
    right &= sigaction(SIGINT, &found, &mine) == 0 && mine.sa_handler == SIG_IGN;
    right &= signal(SIGHUP, SIG_IGN) == SIG_DFL && signal(SIGHUP, SIG_DFL) == SIG_IGN;
    right &= sigset(SIGQUIT, SIG_HOLD) == SIG_DFL && sigset(SIGQUIT, SIG_IGN) == SIG_HOLD;
    right &= sigset(SIGQUIT, SIG_DFL) == SIG_IGN && sigset(SIGQUIT, SIG_DFL) == SIG_DFL;
    right &= sigset(0, SIG_DFL) == SIG_ERR && sigset(SIGKILL, SIG_IGN) == SIG_ERR;
    return right && signal(SIGHUP, SIG_DFL) == SIG_DFL;
}

// Set back to the default, signals are told as before; ignored ones stay ignored.
bool defaults_come_back() {
    signal(SIGTERM, SIG_IGN);
    raise(SIGTERM);
    const bool told = ended_well(start([] {
                                     signal(SIGTERM, SIG_DFL);
                                     raise(SIGTERM);
                                 }),
                                 SIGTERM);
    signal(SIGTERM, SIG_DFL);
    return told && ended_well(start([] {
                                  sigset(SIGTERM, SIG_HOLD);
                                  raise(SIGTERM);
                                  sigset(SIGTERM, SIG_DFL); // comes here
                              }),
                              SIGTERM);
}

} // namespace

int main() {
    if (!faults_are_told() || !looks_unhandled() || !defaults_come_back())
        return 1;
    constexpr int rounds = 30;
    for (int round = 0; round < rounds; ++round)
        if (!requests_are_told(round % 2 != 0 ? SIGTERM : SIGINT))
            return 1;
    return 0;
}
