// Eight threads that allocate, resize and free with the checker on: ten million operations, or as many
// as the argument says. The counters have to balance at the end.
#include "balance.h"
#include "capture.h"
#include "traffic.h"

#include <thread>
#include <vector>

int main(int argc, char **argv) {
    const long operations = argc > 1 ? atol(argv[1]) : 10'000'000;
    constexpr unsigned thread_count = 8;
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < thread_count; ++thread)
        threads.emplace_back([=] {
            Traffic traffic(thread);
            for (long i = 0; i < operations / thread_count; ++i)
                traffic.step();
        });
    for (std::thread &thread : threads)
        thread.join();
    const std::string report = captured_stderr([] { MCReport(0); });
    fputs(report.c_str(), stderr);
    MCDeinit();
    return balanced(report) ? 0 : 1;
}
