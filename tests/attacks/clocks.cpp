// Clocks that go backwards, a second at each look or from one century to another: waiting for a reader of
// standard error that never reads ends all the same, while signals interrupt it, and dates are printed.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>

namespace {

std::atomic<long> looks = 0;

void handle(int) {}

void interrupt_often() {
    struct sigaction action {};
    action.sa_handler = handle;
    sigaction(SIGALRM, &action, nullptr);
    constexpr itimerval every = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every, nullptr);
}

// Standard error becomes a full pipe that does not block.
void fill_stderr() {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0)
        abort();
    dup2(ends[1], STDERR_FILENO);
    while (write(STDERR_FILENO, "", 1) == 1) {
    }
}

} // namespace

// The library's calls come here.
extern "C" int clock_gettime(clockid_t, timespec *now) noexcept {
    *now = {2'000'000 - looks++, 0};
    return 0;
}

extern "C" time_t time(time_t *) noexcept {
    constexpr time_t moments[] = {2'000'000'000, 0, -1, 1'000'000'000, -2'000'000'000};
    return moments[looks++ % 5];
}

int main() {
    const std::string folder = "clocks." + std::to_string(getpid());
    k42mcx_report_folder(folder.c_str());
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    for (int round = 0; round < 20; ++round) {
        MCInit(K42MC_BE32(MC_TO_FILE), 0);
        MCReport(0);
        MCDebugMsg(0, nullptr);
        FDOpen("clocks", round);
        FDCheck(static_cast<int32_t>(K42MC_BE32(round)));
        MCDeinit();
    }
    fill_stderr();
    interrupt_often();
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    MCReport(0);
    MCDeinit();
    return std::system(("rm -r " + folder).c_str());
}
