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

k42mcx_block only(size_t count, const k42mcx_block &block) {
    EXPECT_EQ(count, 1u);
    return block;
}

TEST_F(Since, CopiesWhatIsLeftBetweenTwoMarks) {
    const uint64_t from = k42mcx_mark();
    void *const first = k42MC_malloc("a.c", 1, 10);
    const uint64_t to = k42mcx_mark();
    k42mcx_unlisted(1);
    void *const second = k42MC_malloc("a.c", 2, 20);
    k42mcx_unlisted(0);
    k42mcx_block blocks[2] = {};
    EXPECT_EQ(k42mcx_blocks(from, to, nullptr, 0), 1u);
    const k42mcx_block block = only(k42mcx_blocks(from, to, blocks, 2), blocks[0]);
    EXPECT_STREQ(block.file, "a.c");
    EXPECT_EQ(block.line, 1);
    EXPECT_STREQ(block.code, "LK");
    EXPECT_STREQ(block.type, "STD");
    EXPECT_EQ(block.address, first);
    EXPECT_EQ(block.size, 10u);
    EXPECT_EQ(block.is_kept, 0);
    ASSERT_GT(block.frame_count, 0u);
    char line[4096];
    const size_t length = k42mcx_symbol(block.frames[0], line, sizeof line);
    EXPECT_EQ(length, strlen(line));
    EXPECT_PRED2(contains, line, "CopiesWhatIsLeftBetweenTwoMarks");
    EXPECT_EQ(line[length - 1], ']');
    EXPECT_EQ(k42mcx_symbol(block.frames[0], line, 3), 0u);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(blocks[1].address, nullptr);

    EXPECT_EQ(k42mcx_blocks(from, UINT64_MAX, blocks, 1), 2u);
    EXPECT_EQ(blocks[1].address, nullptr) << "no room";
    EXPECT_EQ(only(k42mcx_blocks(to, UINT64_MAX, blocks, 2), blocks[0]).is_kept, 1);
    for (void *left : {first, second})
        k42MC_free("a.c", 6, left);
    EXPECT_EQ(k42mcx_blocks(from, UINT64_MAX, blocks, 2), 0u);
}

TEST_F(Since, CopiesWhatIsDamaged) {
    k42mcx_block blocks[2] = {};
    auto *const damaged = static_cast<char *>(k42MC_malloc("a.c", 1, 10));
    EXPECT_EQ(k42mcx_damaged(blocks, 2), 0u);
    const char kept = std::exchange(damaged[10], '?');
    EXPECT_STREQ(only(k42mcx_damaged(blocks, 2), blocks[0]).code, "WO");
    EXPECT_EQ(blocks[0].address, damaged);
    damaged[10] = kept;

    k42mcx_quarantine(1 << 20);
    k42MC_free("a.c", 2, damaged);
    damaged[3] = '?';
    const k42mcx_block late = only(k42mcx_damaged(blocks, 2), blocks[0]);
    EXPECT_STREQ(late.code, "WF");
    EXPECT_EQ(late.line, 2);
    EXPECT_STREQ(late.type, "STD");
    EXPECT_EQ(late.address, damaged);
    EXPECT_GT(late.frame_count, 0u);
    damaged[3] = '\xfb';
    EXPECT_EQ(k42mcx_damaged(blocks, 2), 0u);
    k42mcx_quarantine(0);
}

} // namespace
