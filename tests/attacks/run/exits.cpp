// k42mc run --signal USR2 --every 1
// Processes end where the checker, or the thread that writes its reports, is in the midst of something.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<bool> ends_in_report = false;
void (*end_now)(int) = exit;

void allocate_until_the_end() {
    for (size_t size = 1;; size = size * 7 % 4001) {
        void *volatile block = malloc(size);
        free(block);
    }
}

// From a handler that has interrupted an allocation, mostly.
void end_from_handler(int milliseconds) {
    signal(SIGALRM, [](int) { end_now(0); });
    itimerval timer{};
    timer.it_value.tv_usec = 1000 * milliseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
    allocate_until_the_end();
}

void leave_much_to_report() {
    [[maybe_unused]] void *volatile lost;
    for (int i = 0; i < 1000; ++i)
        lost = malloc(10);
}

// While a report is being written, or is about to be.
void end_beside_report() {
    leave_much_to_report();
    raise(SIGUSR2);
    end_now(0);
}

// From within the report.
void end_from_report() {
    ends_in_report = true;
    raise(SIGUSR2);
    pause();
}

void end_with_stderr_held() {
    flockfile(stderr);
    raise(SIGUSR2);
    usleep(100 * 1000);
    end_now(0);
}

void end_with_stderr_held_elsewhere() {
    std::atomic<bool> held = false;
    std::thread holder([&] {
        flockfile(stderr);
        held = true;
        pause();
    });
    while (!held)
        usleep(1000);
    end_now(0);
}

// A child of a process that is writing a report.
void end_in_child() {
    leave_much_to_report();
    for (int i = 0; i < 20; ++i) {
        raise(SIGUSR2);
        const pid_t child = fork();
        if (child == 0)
            end_now(0);
        int status = 0;
        if (waitpid(child, &status, 0) != child || status != 0)
            abort();
    }
    end_now(0);
}

void play(const char *how, const char *end, int round) {
    end_now = strcmp(end, "exit") == 0 ? exit : strcmp(end, "quick") == 0 ? quick_exit : _exit;
    switch (*how) {
    case 'h':
        end_from_handler(1 + round % 20);
        break;
    case 'b':
        end_beside_report();
        break;
    case 'r':
        end_from_report();
        break;
    case 's':
        end_with_stderr_held();
        break;
    case 'e':
        end_with_stderr_held_elsewhere();
        break;
    case 'c':
        end_in_child();
        break;
    default:
        abort();
    }
}

// In a process of its own, with a thread of the checker's. Returns whether it ended well.
bool ends_well(const char *program, const char *how, const char *end, int round) {
    const pid_t child = fork();
    if (child == 0) {
        execl(program, program, how, end, std::to_string(round).c_str(), nullptr);
        abort();
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

// The shim's, too.
extern "C" ssize_t write(int descriptor, const void *bytes, size_t size) {
    if (gettid() != getpid() && ends_in_report.exchange(false))
        end_now(0);
    return syscall(SYS_write, descriptor, bytes, size);
}

int main(int argc, char **argv) {
    if (argc == 4)
        play(argv[1], argv[2], atoi(argv[3]));
    for (const char *how : {"handler", "beside", "report", "stderr", "elsewhere", "child"})
        for (const char *end : {"exit", "quick", "now"})
            for (int round = 0; round < (*how == 'h' ? 12 : 2); ++round)
                if (!ends_well(argv[0], how, end, round)) {
                    printf("%s, %s\n", how, end);
                    return 1;
                }
}
