// Report cycles: which blocks are listed, what the counters say, and the text as a whole.
#include "checker.h"
#include "random.h"

#include <climits>
#include <deque>
#include <sstream>

namespace {

using Report = WithChecker;

TEST_F(Report, PrintsBlocksOldestFirstAndCounters) {
    EXPECT_EQ(report(0), report_text(1, "", {}, {}));
    void *a = k42MC_malloc("net.c", 42, 100);
    void *b = k42MC_calloc("disk.c", 7, 10, 5);
    const Counts both{{150, 2}, {150, 2}, {}};
    EXPECT_EQ(report(2), report_text(2, "", both, both));
    k42MC_free("net.c", 43, k42MC_malloc("net.c", 42, 9)); // in no report
    void *c = k42MC_malloc("net.c", 50, 3);
    EXPECT_EQ(report(2), report_text(3,
                                     "net.c:42:LK:STD:" + address(a) + ":100:2\n" +
                                         "disk.c:7:LK:STD:" + address(b) + ":50:2\n",
                                     {{3, 1}, {12, 2}, {9, 1}}, {{153, 3}, {162, 4}, {9, 1}}));
    for (void *block : {a, b, c})
        k42MC_free("net.c", 60, block);
    EXPECT_EQ(report(1), report_text(4, "", {{}, {}, {153, 3}}, {{}, {162, 4}, {162, 4}}));
}

TEST_F(Report, PrintsNamesAndNumbersOfAnyLength) {
    std::deque<std::string> names; // of which the checker keeps pointers
    std::string expected;
    MCLock();
    for (const size_t length : {0, 1, 383, 384, 385, 386, 511, 512, 5000}) {
        const std::string &name = names.emplace_back(length, 'n');
        const auto record = [&](int line, uintptr_t place, size_t size) {
            MCAlloc(name.c_str(), line, MC_SHM, place, size);
            char numbers[100];
            snprintf(numbers, sizeof numbers, ":%d:LK:SHM:0x%lX:%zu:1\n", line,
                     static_cast<unsigned long>(place), size);
            expected += name + numbers;
        };
        record(INT_MIN, UINTPTR_MAX - length, SIZE_MAX);
        record(-1, 0x10000000 + length, 0);
        record(INT_MAX, 0xabcdef0 + length, 9);
        record(0, length + 1, 10);
    }
    MCUnlock();
    EXPECT_CONTAINS(report(1), "{\n" + expected + "\n####");
}

// Every block against a model of its own: the LK lines of a report, in order.
TEST_F(Report, AgesBlocksOverRandomOperations) {
    Random random;
    struct Live {
        void *block;
        int line;
        unsigned cycles;
    };
    std::deque<Live> live;
    for (int step = 0; step < 3000; ++step) {
        const unsigned choice = random() % 100;
        if (live.empty() || (choice < 45 && live.size() < 150)) {
            live.push_back({k42MC_malloc("m.c", step, 1), step, 0});
        } else if (choice < 95) {
            const auto at = live.begin() + long(random() % live.size());
            const Live old = *at;
            live.erase(at);
            if (choice < 80)
                k42MC_free("m.c", 0, old.block);
            else // a resized block is a new one
                live.push_back({k42MC_realloc("m.c", step, old.block, 1), step, 0});
        } else {
            const uint32_t limit = random() % 6;
            std::string expected, listed;
            for (Live &each : live) {
                if (++each.cycles >= limit)
                    expected += "m.c:" + std::to_string(each.line) + ":LK:STD:" + address(each.block) +
                                ":1:" + std::to_string(each.cycles) + "\n";
            }
            std::istringstream lines(report(limit));
            for (std::string line; std::getline(lines, line);)
                if (contains(line, ":LK:"))
                    listed += line + "\n";
            ASSERT_EQ(listed, expected);
        }
    }
    for (const Live &each : live)
        k42MC_free("m.c", 0, each.block);
}

} // namespace
