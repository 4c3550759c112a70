// Threads that allocate while others switch the checker on and off, report and ask.
#include "balance.h"
#include "checker.h"
#include "traffic.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

template <class Action> void run_threads(int count, Action action) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(action, i);
    for (std::thread &thread : threads)
        thread.join();
}

void allocate(int thread) {
    Traffic traffic(static_cast<unsigned>(thread));
    for (int i = 0; i < 3000; ++i)
        traffic.step();
}

TEST(Threads, LeaveBalancedCounters) {
    checker_on();
    run_threads(8, allocate);
    EXPECT_PRED1(balanced, report(0));
    checker_off();
}

TEST(Threads, MaySwitchTheCheckerWhileOthersAllocate) {
    std::atomic<int> allocating = 6;
    const std::string text = captured_stderr([&] {
        run_threads(8, [&](int thread) {
            if (thread < 6) {
                allocate(thread);
                --allocating;
                return;
            }
            for (int round = 0; allocating > 0; ++round) {
                char filter[] = "traffic.cpp:1:LK:STD:0:5";
                MCInit(0, K42MC_BE32(round % 3 ? MC_TYPE_LKBF : MC_TYPE_BT_OFF | MC_TYPE_LK_RESET));
                MCReport(K42MC_BE32(0x7fffffff));
                MCBTFilterSet(filter, round % 2);
                MCCheck(K42MC_BE_ADDR(&filter));
                if (round % 4 == 3)
                    MCDeinit();
            }
        });
    });
    EXPECT_FALSE(contains(text, "MCLock1") || contains(text, "WRONG"));
    checker_off();
}

} // namespace
