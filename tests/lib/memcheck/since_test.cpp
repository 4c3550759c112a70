// What is left of the blocks that came since a mark.
#include "checker.h"

#include <thread>

namespace {

using Since = WithChecker;

// The blocks' lines, without the traces.
std::string left_since(uint64_t mark, size_t expected_bytes) {
    std::string lines;
    size_t bytes = 1, count = 0, listed = 0;
    const std::string text = captured_stderr([&] { count = k42mcx_since(mark, &bytes); });
    for (size_t at = 0; at < text.size();) {
        const std::string line = line_at(text, at);
        at += line.size() + 1;
        if (contains(line, ":LK:")) {
            lines += line.substr(0, line.find(":LK:")) + line.substr(line.rfind(':')) + "\n";
            ++listed;
        }
    }
    EXPECT_EQ(count, listed);
    EXPECT_EQ(bytes, expected_bytes);
    return lines;
}

TEST_F(Since, ListsWhatIsLeftInTheOrderInWhichItCame) {
    void *const before = k42MC_malloc("a.c", 1, 10);
    const uint64_t mark = k42mcx_mark();
    EXPECT_EQ(left_since(mark, 0), "");
    void *const first = k42MC_malloc("a.c", 2, 20);
    k42MC_free("a.c", 3, k42MC_malloc("a.c", 3, 30));
    void *second = nullptr;
    std::thread([&] { second = k42MC_malloc("a.c", 4, 40); }).join();
    EXPECT_EQ(left_since(mark, 60), "a.c:2:0\na.c:4:0\n");
    EXPECT_EQ(left_since(0, 70), "a.c:1:0\na.c:2:0\na.c:4:0\n");
    report(1000);
    EXPECT_EQ(left_since(mark, 60), "a.c:2:1\na.c:4:1\n");
    EXPECT_EQ(left_since(mark, 60), "a.c:2:1\na.c:4:1\n") << "that ages nothing";
    void *const moved = k42MC_realloc("a.c", 5, before, 50);
    const uint64_t later = k42mcx_mark();
    EXPECT_EQ(left_since(mark, 110), "a.c:2:1\na.c:4:1\na.c:5:0\n");
    EXPECT_EQ(left_since(later, 0), "");
    EXPECT_EQ(captured_stderr([=] { k42mcx_since(later, nullptr); }), "");
    for (void *block : {first, second, moved})
        k42MC_free("a.c", 6, block);
    checker_off();
    size_t bytes = 1;
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(k42mcx_since(0, &bytes), 0u); }),
              "k42mcx_since: ERROR: MC not currently initialized\n");
    EXPECT_EQ(bytes, 0u);
}

} // namespace
