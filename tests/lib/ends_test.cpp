// How processes and threads end, and what else cuts across allocation: each in a process of its own.
#include "checker.h"
#include "ended.h"
#include "traffic.h"

#include <sys/time.h>
#include <thread>

namespace {

void *volatile left; // in reach of the leak sanitizer

void *leak(int size) {
    left = k42MC_malloc("left.c", size, static_cast<size_t>(size));
    return left;
}

void checker_on_here() {
    MCInit(0, K42MC_BE32(MC_TYPE_LKBF));
}

// A report at exit that lists the one block.
void expect_report(const Ended &end, int size) {
    const std::string number = std::to_string(size);
    EXPECT_CONTAINS(end.err, "==========MC exit==========\n");
    EXPECT_CONTAINS(end.err, "left.c:" + number + ":LK:STD:");
    EXPECT_EQ(end.err.find(":LK:"), end.err.rfind(":LK:")) << end.err;
}

TEST(Ends, ReportsOnceOnTheWaysOutThatRunHandlers) {
    void (*const ways[])() = {[] { exit(0); }, [] { std::thread([] { exit(0); }).join(); }};
    for (const auto way : ways) {
        const Ended end = ended([way] {
            checker_on_here();
            leak(20);
            way();
        });
        EXPECT_TRUE(end.exited(0)) << end.err;
        expect_report(end, 20);
    }
}

TEST(Ends, SaysNothingOnTheWaysOutThatRunNone) {
    void (*const ways[])() = {[] { _exit(0); }, [] { quick_exit(0); }, [] { abort(); },
                              [] { execl("/bin/true", "true", nullptr); }};
    for (const auto way : ways) {
        const Ended end = ended([way] {
            checker_on_here();
            leak(20);
            way();
        });
        EXPECT_TRUE(end.exited(0) || end.aborted());
        EXPECT_FALSE(contains(end.err, "MC exit")) << end.err;
    }
}

void *block_of_early;

// Handlers run in the reverse order: what was registered ahead of the checker's comes behind its report.
TEST(Ends, ReportsBetweenTheHandlersAroundIt) {
    const Ended end = ended([] {
        atexit([] {
            k42MC_free("early.c", 1, block_of_early);
            fputs("early\n", stderr);
        });
        checker_on_here();
        block_of_early = leak(21);
        atexit([] {
            k42MC_free("late.c", 1, leak(22));
            fputs("late\n", stderr);
        });
    });
    EXPECT_TRUE(end.exited(0));
    expect_report(end, 21);
    EXPECT_LT(end.err.find("late\n"), end.err.find("MC exit"));
    EXPECT_GT(end.err.find("early\n"), end.err.find("MC exit"));
}

TEST(Ends, ReportsWhileAThreadStillAllocates) {
    for (int round = 0; round < 5; ++round) {
        const Ended end = ended([] {
            checker_on_here();
            std::thread([] {
                Traffic traffic(1);
                for (;;)
                    traffic.step();
            }).detach();
            usleep(2000);
        });
        ASSERT_TRUE(end.exited(0)) << end.err;
        ASSERT_TRUE(contains(end.err, "-----------<cycle 1>-----------"));
        ASSERT_FALSE(contains(end.err, "WRONG"));
        EXPECT_ENDS(end.err, "}\n");
    }
}

struct Keeper {
    ~Keeper() { k42MC_free("tls.c", 2, k42MC_realloc("tls.c", 1, block, 300)); }
    void *block = nullptr;
};
thread_local Keeper keeper;

TEST(Ends, ServesDestructorsOfThreadsAndWhatTheyLeave) {
    checker_on();
    void *block = nullptr;
    std::thread([&] { keeper.block = leak(30), block = leak(31); }).join();
    const std::string text = report(0);
    EXPECT_CONTAINS(text, "left.c:31:LK:STD:");
    EXPECT_EQ(text.find(":LK:"), text.rfind(":LK:"));
    std::thread([&] { k42MC_free("other.c", 1, block); }).join();
    EXPECT_FALSE(contains(report(0), ":LK:"));
    checker_off();
}

volatile sig_atomic_t interruptions = 0;

TEST(Ends, OutlivesSignalsThatInterruptIt) {
    checker_on();
    signal(SIGALRM, [](int) { interruptions = interruptions + 1; });
    const itimerval often = {{0, 100}, {0, 100}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    {
        Traffic traffic(2);
        for (int steps = 0; steps < 20000 || interruptions < 100; ++steps)
            traffic.step();
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_FALSE(contains(report(0), ":LK:"));
    checker_off();
}

} // namespace
