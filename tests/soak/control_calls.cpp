// All control calls from many threads that also allocate, among forks, signals and a cancellation: every
// round comes to its end, in one of all ways, with the threads still running or not.
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

// The thread sanitizer takes what libc allocates under its lock of the time zone for races, which it cannot report
// while another thread holds the loader's lock and waits for that one; it leaves its allocator's locks to a forked
// child as they are, held or not; and what it adds to a function is cleaned up after, which ends the process when a
// thread is cancelled between two calls.
#ifdef __SANITIZE_THREAD__
constexpr bool under_thread_sanitizer = true;
#else
constexpr bool under_thread_sanitizer = false;
#endif

int nowhere;
std::atomic<bool> done = false;

void handle(int) {}

void allocate() {
    void *block = k42MC_malloc("control_calls.cpp", 1, 10);
    MCCheck(K42MC_BE_ADDR(block));
    k42MC_free("control_calls.cpp", 2, block);
}

void filter(unsigned number) {
    char text[64];
    snprintf(text, sizeof text, "traffic.cpp:1:LK:STD:0x1:%u:1", number / 2 % 400);
    MCBTFilterSet(text, static_cast<int>(number % 2));
}

void init(unsigned number) {
    constexpr uint32_t bitmaps[] = {MC_TYPE_LKBF, MC_TYPE_BT_OFF, MC_TYPE_LK_RESET, MC_TYPE_SHM, 0x100};
    MCInit(K42MC_BE32(number % 2), K42MC_BE32(bitmaps[number / 2 % 5]));
}

using Call = void (*)(unsigned number);

constexpr Call memory_calls[] = {init,
                                 init,
                                 init,
                                 filter,
                                 [](unsigned) { MCDeinit(); },
                                 [](unsigned number) { MCReport(K42MC_BE32(number % 16)); },
                                 [](unsigned) { MCBTFilterReset(); },
                                 [](unsigned number) { MCDebugMsg(number % 2, "message %u\n", number); },
                                 [](unsigned) { k42mcx_verify(); },
                                 [](unsigned number) { k42mcx_report_json(nowhere, number % 16); },
                                 [](unsigned) { k42mcx_report_folder(folder); }};

int32_t descriptor(unsigned number) {
    return static_cast<int32_t>(number % 16);
}

constexpr Call descriptor_calls[] = {
    [](unsigned number) { FDOpen("control_calls", descriptor(number)); },
    [](unsigned number) { FDOpen("control_calls", descriptor(number)); },
    [](unsigned number) { FDClose("control_calls", descriptor(number)); },
    [](unsigned number) { FDCheck(static_cast<int32_t>(K42MC_BE32(descriptor(number)))); },
    [](unsigned number) { FDReport(K42MC_BE32(number % 6)); },
    [](unsigned) { k42mcx_fd_report_json(nowhere); }};

int in_module(dl_phdr_info *, size_t, void *) {
    allocate();
    return 0;
}

void hold_stderr(unsigned) {
    flockfile(stderr);
    allocate();
    fputs("a line\n", stderr);
    funlockfile(stderr);
}

// What holds locks of libc's, and allocates meanwhile where it can.
constexpr Call libc_calls[] = {hold_stderr, [](unsigned) { fflush(nullptr); },
                               [](unsigned) { dl_iterate_phdr(in_module, nullptr); },
                               [](unsigned) {
                                   if (!under_thread_sanitizer)
                                       tzset();
                               }};

template <size_t count> void call_one(const Call (&calls)[count], std::mt19937 &random) {
    calls[random() % count](static_cast<unsigned>(random()));
}

void fork_one(std::mt19937 &random) {
    if (under_thread_sanitizer) {
        usleep(1000);
        return;
    }
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
        call_one(memory_calls, random);
    call_one(descriptor_calls, random);
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
            call_one(memory_calls, random);
        else if (choice < 94)
            call_one(descriptor_calls, random);
        else
            call_one(libc_calls, random);
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

// Allocates before it may be cancelled anywhere, so that it has something to leave behind.
void *compute(void *) {
    allocate();
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    for (;;)
        __asm__ volatile("");
}

void cancel_one() {
    pthread_t thread;
    pthread_create(&thread, nullptr, compute, nullptr);
    usleep(1000);
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
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
    if (!under_thread_sanitizer)
        cancel_one();
    constexpr void (*endings[])(int) = {exit, quick_exit, _exit};
    const unsigned ending = random() % 4;
    done = ending == std::size(endings);
    for (std::thread &thread : threads)
        done ? thread.join() : thread.detach();
    if (!done)
        endings[ending](0);
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
