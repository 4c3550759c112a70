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

[[noreturn]] void be_a_child(bool report) {
    k42MC_free("fork.cpp", 2, k42MC_malloc("fork.cpp", 1, 50));
    if (report)
        MCReport(K42MC_BE32(2));
    _exit(0);
}

bool forked_well(bool report) {
    const pid_t child = fork();
    if (child == 0)
        be_a_child(report);
    int status = -1;
    alarm(60); // a child that hangs on a lock ends the run
    waitpid(child, &status, 0);
    alarm(0);
    return status == 0;
}

} // namespace

int main(int argc, char **argv) {
    const int forks = argc > 1 ? atoi(argv[1]) : 3000;
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
            const bool report = i % 50 == 0;
            reporting += report;
            good = forked_well(report);
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
