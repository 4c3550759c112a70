// Damage in blocks that are still live, found without stopping for it.
#include "checker.h"

#include "random.h"

#include <vector>

namespace {

using Verify = WithChecker;

std::string damage_line(const char *place, const void *block, size_t size, unsigned cycles) {
    return std::string(place) + ":STD:" + address(block) + ":" + std::to_string(size) + ":" +
           std::to_string(cycles) + "\n";
}

// What verification prints, without the frames of the traces.
std::string verified(unsigned damaged) {
    std::string lines;
    const std::string text = captured_stderr([&] { EXPECT_EQ(k42mcx_verify(), damaged); });
    for (size_t at = 0; at < text.size();) {
        const std::string line = line_at(text, at);
        at += line.size() + 1;
        if (!contains(line, "[0x"))
            lines += line + "\n";
    }
    return lines;
}

TEST_F(Verify, PrintsEachDamagedBlockWithItsTrace) {
    const std::string trace = "Backtrace of the allocation:\n------\n";
    char *volatile over = static_cast<char *>(k42MC_malloc("a.c", 1, 10));
    void *moved = k42MC_realloc("a.c", 3, k42MC_calloc("a.c", 2, 3, 5), 1000);
    void *aligned = nullptr;
    ASSERT_EQ(k42MC_posix_memalign("a.c", 4, &aligned, 4096, 77), 0);
    char *volatile under = static_cast<char *>(k42MC_valloc("a.c", 5, 0));
    EXPECT_EQ(verified(0), "");
    report(1);
    over[10] = char(over[10] ^ 1);
    under[-1] ^= 1; // the raw size, and with it where the header has the tail
    EXPECT_EQ(verified(2), damage_line("a.c:1:WO", over, 10, 1) + trace +
                               damage_line("a.c:5:WU", under, 0, 1) + trace);
    over[10] = char(over[10] ^ 1);
    under[-1] ^= 1;
    EXPECT_EQ(verified(0), "");
    MCBTFilterOut(std::string("a.c:9:LK:STD:0x0:1:0").data());
    char *volatile untraced = static_cast<char *>(k42MC_malloc("a.c", 9, 1));
    untraced[1] ^= 1;
    EXPECT_EQ(verified(1), damage_line("a.c:9:WO", untraced, 1, 0) + "No backtrace available\n------\n");
    untraced[1] ^= 1;
    for (void *block : {static_cast<void *>(over), moved, aligned, static_cast<void *>(under),
                        static_cast<void *>(untraced)})
        k42MC_free("a.c", 6, block);
    checker_off();
    EXPECT_EQ(verified(0), "k42mcx_verify: ERROR: MC not currently initialized\n");
}

// Each bit of magic, raw size, tail pattern and arena, in blocks of random sizes and alignments.
TEST_F(Verify, FindsEachBit) {
    Random random;
    for (int round = 0; round < 300; ++round) {
        const size_t size = random() % 5000;
        void *block = nullptr;
        ASSERT_EQ(k42MC_posix_memalign("a.c", 1, &block, size_t{16} << random() % 9, size), 0);
        const size_t word = sizeof(uintptr_t);
        const size_t offset = random() % (10 * word); // magic, raw size, then the tail
        char *guard = static_cast<char *>(block) - 8 * word;
        char *byte = offset < word       ? guard + offset
                     : offset < 2 * word ? guard + 6 * word + offset
                                         : static_cast<char *>(block) + size + offset - 2 * word;
        const char bit = static_cast<char>(1 << random() % 8);
        *byte = static_cast<char>(*byte ^ bit);
        const std::string defect = offset < 2 * word ? "a.c:1:WU" : "a.c:1:WO";
        EXPECT_STARTS(verified(1), damage_line(defect.c_str(), block, size, 0));
        *byte = static_cast<char>(*byte ^ bit);
        k42MC_free("a.c", 1, block);
    }
}

// Records whose memory is no guarded block of the registry's any more.
TEST_F(Verify, SaysNothingOfMemoryThatIsNotItsOwn) {
    const size_t page = 4096;
    auto *pages = static_cast<char *>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    void *volatile released = k42MC_malloc("a.c", 1, 100);
    k42mc_guard_free(K42MC_ARENA_STD, released);
    MCLock();
    MCAlloc("b.c", 1, MC_STD, number(pages + page), 100);
    MCUnlock();
    EXPECT_EQ(verified(0), "");
    munmap(pages, page); // where the header was
    EXPECT_EQ(verified(0), "");
    munmap(pages + page, page);
    EXPECT_EQ(verified(0), "");
    munmap(pages + 2 * page, page);
    MCLock();
    MCFree("b.c", 1, MC_STD, number(pages + page));
    MCFree("a.c", 1, MC_STD, number(released));
    MCUnlock();
    free(static_cast<char *>(released) - K42MC_GUARD_OVERHEAD / 2);
}

} // namespace
