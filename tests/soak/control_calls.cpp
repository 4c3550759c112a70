// All control calls from many threads that also allocate, among forks and signals: every round comes to its
// end.
#include "rounds.h"
#include "traffic.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <link.h>
#include <sys/time.h>
#include <thread>
#include <vector>

namespace {

constexpr const char *folder = "control_calls.reports";

int nowhere;
std::atomic<bool> done = false;

void handle(int) {}

void filter(std::mt19937 &random) {
    char text[64];
    snprintf(text, sizeof text, "traffic.cpp:1:LK:STD:0x1:%u:1", static_cast<unsigned>(random() % 400));
    MCBTFilterSet(text, static_cast<int>(random() % 2));
}

void control(std::mt19937 &random) {
    constexpr uint32_t bitmaps[] = {MC_TYPE_LKBF, MC_TYPE_BT_OFF, MC_TYPE_LK_RESET, MC_TYPE_SHM, 0x100};
    const uint32_t number = random() % 16;
    switch (random() % 12) {
    case 0:
        MCDeinit();
        break;
    case 1:
        MCReport(K42MC_BE32(number));
        break;
    case 2: {
        void *block = k42MC_malloc("control_calls.cpp", 1, number);
        MCCheck(K42MC_BE_ADDR(block));
        k42MC_free("control_calls.cpp", 2, block);
        MCCheck(K42MC_BE_ADDR(block));
        break;
    }
    case 3:
        filter(random);
        break;
    case 4:
        MCBTFilterReset();
        break;
    case 5:
        MCDebugMsg(number % 2, "message %u\n", number);
        break;
    case 6:
        k42mcx_verify();
        break;
    case 7:
        k42mcx_report_json(nowhere, number);
        break;
    case 8:
        k42mcx_report_folder(folder);
        break;
    default:
        MCInit(K42MC_BE32(random() % 2), K42MC_BE32(bitmaps[random() % 5]));
        break;
    }
}

void describe(std::mt19937 &random) {
    const auto descriptor = static_cast<int32_t>(random() % 16);
    switch (random() % 6) {
    case 0:
        FDReport(K42MC_BE32(random() % 6));
        break;
    case 1:
        FDCheck(static_cast<int32_t>(K42MC_BE32(descriptor)));
        break;
    case 2:
        k42mcx_fd_report_json(nowhere);
        break;
    case 3:
        FDClose("control_calls", descriptor);
        break;
    default:
        FDOpen("control_calls", descriptor);
        break;
    }
}

int allocate(dl_phdr_info *, size_t, void *) {
    k42MC_free("control_calls.cpp", 4, k42MC_malloc("control_calls.cpp", 3, 10));
    return 0;
}

// What holds locks of libc's, and allocates meanwhile.
void hold(std::mt19937 &random) {
    switch (random() % 4) {
    case 0:
        flockfile(stderr);
        allocate(nullptr, 0, nullptr);
        fputs("a line\n", stderr);
        funlockfile(stderr);
        break;
    case 1:
        fflush(nullptr);
        break;
    case 2:
        dl_iterate_phdr(allocate, nullptr);
        break;
    default: {
        const time_t now = time(nullptr);
        tm local;
        localtime_r(&now, &local);
        break;
    }
    }
}

void fork_one(std::mt19937 &random) {
    const pid_t child = fork();
    if (child != 0) {
        int status = -1;
        while (waitpid(child, &status, 0) < 0) {
        }
        if (status != 0)
            abort();
        return;
    }
    alarm(30);
    for (unsigned calls = random() % 4; calls > 0; --calls)
        control(random);
    describe(random);
    if (random() % 2)
        exit(0);
    _exit(0);
}

void call(unsigned seed) {
    std::mt19937 random(seed);
    Traffic traffic(seed);
    while (!done) {
        const unsigned choice = random() % 100;
        if (choice < 80)
            traffic.step();
        else if (choice < 90)
            control(random);
        else if (choice < 94)
            describe(random);
        else
            hold(random);
    }
}

// Buffered or not, to a file or through a pipe that blocks or not.
void choose_stderr(std::mt19937 &random) {
    static char buffer[512];
    if (random() % 2)
        setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    int ends[2];
    if (random() % 2 || pipe2(ends, random() % 2 ? O_NONBLOCK : 0) != 0)
        return;
    dup2(ends[1], STDERR_FILENO);
    fcntl(ends[0], F_SETFL, 0);
    std::thread([from = ends[0]] {
        char text[4096];
        while (read(from, text, sizeof text) != 0) {
        }
    }).detach();
}

void interrupt(std::mt19937 &random) {
    struct sigaction action {};
    action.sa_handler = handle;
    action.sa_flags = random() % 2 ? SA_RESTART : 0;
    sigaction(SIGUSR1, &action, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    timer_t timer;
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    const timespec pause{0, 100'000 + static_cast<long>(random() % 2'000'000)};
    const itimerspec times{pause, pause};
    timer_settime(timer, 0, &times, nullptr);
}

int play(unsigned seed) {
    std::mt19937 random(seed);
    if (random() % 2) // no debug file can be opened
        program_invocation_short_name = const_cast<char *>("no/such/folder");
    choose_stderr(random);
    k42mcx_report_folder(folder);
    interrupt(random);
    std::vector<std::thread> threads;
    for (unsigned thread = 2 + random() % 4; thread > 0; --thread)
        threads.emplace_back(call, seed ^ thread << 24);
    for (unsigned forks = random() % 60; forks > 0; --forks)
        fork_one(random);
    done = true;
    for (std::thread &thread : threads)
        thread.join();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    nowhere = open("/dev/null", O_WRONLY);
    send_stderr("/dev/null");
    return run_rounds(argc, argv, 500, play, [](unsigned) {
        std::filesystem::remove_all(folder);
        return true;
    });
}
