// k42mc run --signal USR1
// A report that is asked of a forked child is the child's, of what it has allocated itself; and where the program takes the signal for itself, its
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
    void *volatile parents = malloc(4321);
    int ready[2];
    if (parents == nullptr || pipe(ready) != 0)
        return 1;
    const pid_t child = fork();
    if (child == 0) {
        void *volatile childs = malloc(1234);
        close(ready[childs == nullptr ? 0 : 1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    char nothing;
    const bool is_ready = read(ready[0], &nothing, 1) == 0;
    const bool answered = is_ready && answers(child) &&
                          report_of(child).find(R"("largest":1234)") != std::string::npos &&
                          report_of(child).find(R"("bytes":4321)") == std::string::npos;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    if (!answered || report_of(getpid()).find(R"("kind":"end")") != std::string::npos)
        return 1;
    signal(SIGUSR1, SIG_IGN);
    return report_of(getpid()).find("none will come by it") == std::string::npos;
}
