// Report cycles: which blocks are listed, what the counters say, and the text as a whole.
#include "checker.h"
#include "seed.h"

#include <deque>
#include <sstream>

namespace {

using Report = WithChecker;

std::string header(unsigned cycle) {
    return "-----------<cycle " + std::to_string(cycle) + ">-----------\n{\n";
}

std::string total(const char *what, Count held) {
    return std::string("\n#### ") + what + ": " + std::to_string(held.bytes) + " bytes held by " +
           std::to_string(held.count) + " allocations ####\n";
}

TEST_F(Report, PrintsZerosWithoutBlocks) {
    EXPECT_EQ(report(0), header(1) + total("This cycle", {}) + standard_counters({}, {}, {}) +
                             total("Since reset", {}) + standard_counters({}, {}, {}) + "}\n");
}

TEST_F(Report, PrintsBlocksOldestFirstAndCounters) {
    void *a = k42MC_malloc("net.c", 42, 100);
    void *b = k42MC_calloc("disk.c", 7, 10, 5);
    const Count both{150, 2};
    EXPECT_EQ(report(2), header(1) + total("This cycle", both) + standard_counters(both, both, {}) +
                             total("Since reset", both) + standard_counters(both, both, {}) + "}\n");
    k42MC_free("net.c", 43, k42MC_malloc("net.c", 42, 9)); // in no report
    void *c = k42MC_malloc("net.c", 50, 3);
    EXPECT_EQ(report(2), header(2) + "net.c:42:LK:STD:" + address(a) + ":100:2\n" +
                             "disk.c:7:LK:STD:" + address(b) + ":50:2\n" + total("This cycle", {3, 1}) +
                             standard_counters({3, 1}, {12, 2}, {9, 1}) +
                             total("Since reset", {153, 3}) +
                             standard_counters({153, 3}, {162, 4}, {9, 1}) + "}\n");
    for (void *block : {a, b, c})
        k42MC_free("net.c", 60, block);
    EXPECT_EQ(report(1), header(3) + total("This cycle", {}) + standard_counters({}, {}, {153, 3}) +
                             total("Since reset", {}) + standard_counters({}, {162, 4}, {162, 4}) +
                             "}\n");
}

// Every block against a model of its own: the LK lines of a report, in order.
TEST_F(Report, AgesBlocksOverRandomOperations) {
    const Seed seed;
    SCOPED_TRACE(seed.text());
    std::mt19937 random(seed.value);
    struct Live {
        void *block;
        int line;
        unsigned cycles;
    };
    std::deque<Live> live;
    for (int step = 0; step < 3000; ++step) {
        const auto some = [&] { return live.begin() + static_cast<long>(random() % live.size()); };
        const unsigned choice = random() % 100;
        if (live.empty() || (choice < 45 && live.size() < 150)) {
            live.push_back({k42MC_malloc("m.c", step, 1), step, 0});
        } else if (choice < 80) {
            const auto old = some();
            k42MC_free("m.c", 0, old->block);
            live.erase(old);
        } else if (choice < 95) { // a resized block is a new one
            const auto old = some();
            void *block = k42MC_realloc("m.c", step, old->block, 1);
            live.erase(old);
            live.push_back({block, step, 0});
        } else {
            const uint32_t limit = random() % 6;
            std::string expected;
            for (Live &each : live) {
                if (++each.cycles >= limit)
                    expected += "m.c:" + std::to_string(each.line) + ":LK:STD:" + address(each.block) +
                                ":1:" + std::to_string(each.cycles) + "\n";
            }
            std::istringstream lines(report(limit));
            std::string line, listed;
            while (std::getline(lines, line)) {
                if (line.find(":LK:") != std::string::npos)
                    listed += line + "\n";
            }
            ASSERT_EQ(listed, expected);
        }
    }
    for (const Live &each : live)
        k42MC_free("m.c", 0, each.block);
}

TEST_F(Report, RefusesWhileTheCheckerIsOff) {
    checker_off();
    EXPECT_EQ(report(0), "MCReport: ERROR: MC not currently initialized\n");
    checker_on();
}

} // namespace
