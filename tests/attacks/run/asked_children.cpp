// k42mc run --signal USR1
// A report that is asked of a forked child is the child's; and where the program takes the signal for itself, its
// report says so.
#include "report_of_process.h"

#include <csignal>
#include <sys/wait.h>

namespace {

bool answers(pid_t child) {
    kill(child, SIGUSR1);
    constexpr int most_naps = 10'000;
    for (int naps = 0; naps < most_naps; ++naps) {
        if (report_of(child).find(R"("kind":"end")") != std::string::npos)
            return true;
        usleep(1000);
    }
    return false;
}

} // namespace

int main() {
    const pid_t child = fork();
    if (child == 0)
        for (;;)
            pause();
    const bool answered = answers(child);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    if (!answered || report_of(getpid()).find(R"("kind":"end")") != std::string::npos)
        return 1;
    signal(SIGUSR1, SIG_IGN);
    return report_of(getpid()).find("none will come by it") == std::string::npos;
}
