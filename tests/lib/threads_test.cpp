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

// Each report is of one moment: what is held is what was allocated and not yet freed.
TEST(Threads, MeetReportsThatSeeOneMoment) {
    checker_on();
    std::atomic<int> allocating = 6, reported = 0;
    std::string text = captured_stderr([&] {
        run_threads(7, [&](int thread) {
            for (; thread == 6 && allocating > 0; ++reported, usleep(200))
                MCReport(K42MC_BE32(0x7fffffff));
            void *blocks[16] = {};
            for (int i = 0; thread != 6 && (i < 20000 || reported < 5); ++i) {
                void *&block = blocks[i % 16];
                k42MC_free("a.c", 1, block);
                block = k42MC_malloc("a.c", 2, size_t(i % 100));
            }
            for (void *block : blocks)
                k42MC_free("a.c", 3, block);
            allocating -= thread != 6;
        });
    });
    int reports = 0;
    for (size_t at = 0; (at = text.find("#### Since reset", at)) != std::string::npos; ++reports) {
        unsigned long long held[2], allocated[2], freed[2];
        at = text.find("STD:", at);
        ASSERT_EQ(sscanf(line_at(text, at).c_str(), "STD: %llu(%llu); +%llu(%llu), -%llu(%llu)",
                         &held[0], &held[1], &allocated[0], &allocated[1], &freed[0], &freed[1]),
                  6);
        ASSERT_EQ(held[0], allocated[0] - freed[0]);
        ASSERT_EQ(held[1], allocated[1] - freed[1]);
    }
    EXPECT_GT(reports, 2);
    checker_off();
}

// Whoever holds the lock, in whatever way: of each thread, one operation may be about to end.
TEST(Threads, StandStillWhileTheLockIsHeld) {
    checker_on();
    constexpr int workers = 4;
    std::atomic<bool> done = false;
    std::atomic<long> operations = 0;
    run_threads(workers + 1, [&](int thread) {
        while (thread < workers && !done) {
            k42MC_free("a.c", 1, k42MC_malloc("a.c", 2, 10));
            operations += 2;
        }
        for (int round = 0; round < 20 && thread == workers; ++round) {
            const long before = operations;
            while (operations < before + 1000)
                std::this_thread::yield();
            round % 2 ? void(MCLock()) : void(pthread_mutex_lock(&gMCLock));
            const long start = operations;
            usleep(2000);
            EXPECT_LE(operations - start, 2 * workers);
            round % 4 < 2 ? MCUnlock() : pthread_mutex_unlock(&gMCLock);
        }
        if (thread == workers)
            done = true;
    });
    checker_off();
}

// Blocks handed from thread to thread, each allocated after the one before had arrived.
TEST(Threads, KeepTheOrderOfWhatTheyHandOver) {
    checker_on();
    constexpr int count = 150;
    static void *blocks[count];
    for (int round = 0; round < 100 && !testing::Test::HasFailure(); ++round) {
        std::atomic<int> arrived = 0;
        run_threads(3, [&](int thread) {
            for (int i = thread; i < count; i += 3) {
                while (arrived.load(std::memory_order_acquire) != i)
                    std::this_thread::yield();
                blocks[i] = k42MC_malloc("a.c", i, 1);
                arrived.store(i + 1, std::memory_order_release);
            }
        });
        std::string expected;
        for (int i = 0; i < count; ++i)
            expected += "a.c:" + std::to_string(i) + ":LK:STD:" + address(blocks[i]) + ":1:1\n";
        EXPECT_CONTAINS(report(1), expected);
        run_threads(3, [&](int thread) { // other threads than those that allocated
            for (int i = count - 1 - thread; i >= 0; i -= 3)
                k42MC_free("a.c", i, blocks[i]);
        });
    }
    EXPECT_PRED1(balanced, report(0));
    checker_off();
}

// More threads than lanes that need no memory, of which none ends before the last has begun.
TEST(Threads, RecordInAnyNumber) {
    checker_on();
    constexpr int count = 100;
    for (int round = 0; round < 3; ++round) {
        std::atomic<int> started = 0;
        run_threads(count, [&](int) {
            void *const block = k42MC_malloc("a.c", 1, 1);
            for (++started; started < count;)
                std::this_thread::yield();
            k42MC_free("a.c", 2, block);
        });
    }
    EXPECT_PRED1(balanced, report(0));
    EXPECT_CONTAINS(report(0), counters("STD", {{}, {3 * count, 3 * count}, {3 * count, 3 * count}}));
    checker_off();
}

} // namespace
