// The first debug message, whose file cannot be opened, while one thread forks and another asks for
// reports.
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// One start in a process of its own; true if it came to its end.
bool starts_well() {
    const pid_t process = fork();
    if (process == 0) {
        alarm(10);
        MCInit(0, 0);
        std::atomic<int> ready = 0;
        const auto together = [&ready] {
            ++ready;
            while (ready < 3) {
            }
        };
        std::thread message([&] {
            together();
            MCDebugMsg(0, "message\n");
        });
        std::thread reports([&] {
            together();
            for (int i = 0; i < 50; ++i)
                MCReport(0);
        });
        together();
        for (int i = 0; i < 20; ++i) {
            const pid_t child = fork();
            if (child == 0)
                _exit(0);
            waitpid(child, nullptr, 0);
        }
        message.join();
        reports.join();
        _exit(0);
    }
    int status = 1;
    waitpid(process, &status, 0);
    return status == 0;
}

} // namespace

int main() {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    program_invocation_short_name = const_cast<char *>("no/such/folder");
    for (int start = 0; start < 20; ++start)
        if (!starts_well())
            return 1;
    return 0;
}
