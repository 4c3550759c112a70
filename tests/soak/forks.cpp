// Thousands of forks while four threads allocate, reports going to a file: every child has to come up
// with usable locks and a report file of its own, and nothing may be written twice.
#include "capture.h"
#include "traffic.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

constexpr const char *folder = K42MC_REPORT_DIR;

size_t occurrences(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

enum class Ending { quiet, report, exit };

[[noreturn]] void be_a_child(Ending ending) {
    k42MC_free("fork.cpp", 2, k42MC_malloc("fork.cpp", 1, 50));
    if (ending == Ending::report)
        MCReport(K42MC_BE32(2));
    if (ending == Ending::exit)
        exit(0);
    _exit(0);
}

bool forked_well(Ending ending) {
    const pid_t child = fork();
    if (child == 0)
        be_a_child(ending);
    int status = -1;
    alarm(60); // a child that hangs on a lock ends the run
    waitpid(child, &status, 0);
    alarm(0);
    return status == 0;
}

} // namespace

int main(int argc, char **argv) {
    const int forks = argc > 1 ? atoi(argv[1]) : 10000;
    std::filesystem::remove_all(folder);
    bool good = true;
    int reporting = 0;
    captured_stderr([&] {
        MCInit(K42MC_BE32(MC_TO_FILE), K42MC_BE32(MC_TYPE_LKBF));
        std::atomic<bool> done = false;
        std::vector<std::thread> threads;
        for (unsigned thread = 0; thread < 4; ++thread)
            threads.emplace_back([&done, thread] {
                Traffic traffic(thread);
                while (!done)
                    traffic.step();
            });
        for (int i = 0; i < forks && good; ++i) {
            const Ending ending = i % 50 == 0   ? Ending::report
                                  : i % 50 == 1 ? Ending::exit
                                                : Ending::quiet;
            reporting += ending != Ending::quiet;
            good = forked_well(ending);
        }
        done = true;
        for (std::thread &thread : threads)
            thread.join();
        MCDeinit();
    });
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path());
        const std::string text(std::istreambuf_iterator<char>(file), {});
        good = good && occurrences(text, "MC init") + occurrences(text, "<cycle 1>") == 1;
        ++files;
    }
    printf("%d forks, %d report files for %d reporting children\n", forks, files, reporting);
    return good && files == reporting + 1 ? 0 : 1;
}
