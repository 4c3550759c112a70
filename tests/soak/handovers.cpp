// A million blocks handed from thread to thread, by a mutex and by an atomic in turn, or as many as the argument says: reports
// list them in the order in which they were made.
#include "capture.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <k42mc/k42mc.h>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int threads = 4, blocks = 190; // which a report to standard error lists
void *made[blocks];

void make(int number) {
    made[number] = k42MC_malloc("handovers.cpp", number, 1);
}

void hand_over_by_atomic(int thread, std::atomic<int> &arrived) {
    for (int i = thread; i < blocks; i += threads) {
        while (arrived.load(std::memory_order_acquire) != i)
            std::this_thread::yield();
        make(i);
        arrived.store(i + 1, std::memory_order_release);
    }
}

// Whoever has the lock makes the next one.
void hand_over_by_mutex(std::mutex &mutex, int &next) {
    for (bool goes_on = true; goes_on;) {
        const std::lock_guard lock(mutex);
        goes_on = next < blocks;
        if (goes_on)
            make(next++);
    }
}

void run_round(bool by_mutex) {
    std::atomic<int> arrived = 0;
    std::mutex mutex;
    int next = 0;
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread)
        all.emplace_back([&, thread] {
            by_mutex ? hand_over_by_mutex(mutex, next) : hand_over_by_atomic(thread, arrived);
        });
    for (std::thread &thread : all)
        thread.join();
}

bool is_in_order(const std::string &report) {
    int expected = 0;
    constexpr const char *start = "handovers.cpp:";
    for (size_t at = 0; (at = report.find(start, at)) != std::string::npos; ++expected) {
        at += sizeof "handovers.cpp:" - 1;
        if (atoi(&report[at]) != expected)
            return false;
    }
    return expected == blocks;
}

} // namespace

int main(int argc, char **argv) {
    const long wanted = argc > 1 ? atol(argv[1]) : 1'000'000;
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF | MC_TYPE_BT_OFF));
    bool in_order = true;
    for (long round = 0; in_order && round * blocks < wanted; ++round) {
        run_round(round % 2 != 0);
        in_order = is_in_order(captured_stderr([] { MCReport(0); }));
        for (int i = blocks - 1; i >= 0; --i)
            k42MC_free("handovers.cpp", i, made[i]);
    }
    MCDeinit();
    puts(in_order ? "all in order" : "not in order");
    return in_order ? 0 : 1;
}
