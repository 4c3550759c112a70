#include "checker.h"
#include "ended.h"

#include <sys/mman.h>
#include <vector>

namespace {

class Verify : public WithChecker {
protected:
    void SetUp() override {
        WithChecker::SetUp();
        for (size_t size : {1, 7, 24, 100, 5000})
            blocks.push_back({static_cast<char *>(k42MC_malloc("a.c", 1, size)), size});
    }
    void TearDown() override {
        for (const auto &[block, size] : blocks)
            k42MC_free("a.c", 2, block);
        WithChecker::TearDown();
    }

    // What is printed, lines of traces apart.
    std::string verify(unsigned damaged) {
        const std::string text = captured_stderr([&] { EXPECT_EQ(k42mcx_verify(), damaged); });
        std::string lines;
        for (size_t at = 0, end; at < text.size(); at = end) {
            end = text.find('\n', at) + 1;
            if (const std::string line = text.substr(at, end - at);
                line.find(" [0x") == std::string::npos)
                lines += line;
        }
        return lines;
    }

    struct Block {
        char *block;
        size_t size;
    };
    std::vector<Block> blocks;
};

std::string damage(const char *defect, const void *block, size_t size, unsigned cycles) {
    return std::string("a.c:1:") + defect + ":STD:" + address(block) + ":" + std::to_string(size) + ":" +
           std::to_string(cycles) + "\nBacktrace of the allocation:\n------\n";
}

TEST_F(Verify, FindsEveryDamagedByte) {
    constexpr size_t guard = K42MC_GUARD_OVERHEAD / 2;
    report(0);
    EXPECT_EQ(verify(0), "");
    for (const auto &[block, size] : blocks) {
        for (size_t i = 0; i < guard; ++i) {
            char *const byte = block + size + i;
            ++*byte;
            EXPECT_EQ(verify(1), damage("WO", block, size, 1)) << "byte " << i << " behind " << size;
            --*byte;
        }
        // The magic word, the offset and the raw size; what lies between is the trace.
        for (const size_t before : {guard, guard - sizeof(void *) + 1, 2 * sizeof(void *), size_t{1}}) {
            char *const byte = block - before;
            ++*byte;
            EXPECT_EQ(verify(1), damage("WU", block, size, 1)) << before << " bytes before " << size;
            --*byte;
        }
    }
    EXPECT_EQ(verify(0), "");
}

TEST_F(Verify, KnowsAlignedAndResizedBlocks) {
    void *aligned = nullptr;
    ASSERT_EQ(k42MC_posix_memalign("a.c", 1, &aligned, 512, 33), 0);
    void *const object = k42mcx_alloc("a.c", 1, MC_VAR, 1, 10);
    void *resized = k42MC_realloc("a.c", 1, k42MC_malloc("a.c", 1, 10), 3000);
    EXPECT_EQ(verify(0), "");
    static_cast<char *>(aligned)[33] ^= 1;
    EXPECT_EQ(verify(1), damage("WO", aligned, 33, 0));
    static_cast<char *>(aligned)[33] ^= 1;
    k42MC_free("a.c", 2, aligned);
    k42mcx_free("a.c", 2, MC_VAR, object);
    k42MC_free("a.c", 2, resized);
}

// Only the checker's own function for it forgets a block; here the memory goes on its own.
TEST_F(Verify, SurvivesMemoryThatIsGone) {
    const size_t size = 1 << 16;
    auto *const pages = static_cast<char *>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    void *const block = k42mc_guard_alloc(K42MC_ARENA_STD, 1, pages, size);
    MCLock();
    MCAlloc("a.c", 1, MC_STD, number(block), size - K42MC_GUARD_OVERHEAD);
    MCUnlock();
    EXPECT_EQ(verify(0), "");
    munmap(pages + size / 2, size / 2);
    EXPECT_EQ(verify(1), damage("WU", block, size - K42MC_GUARD_OVERHEAD, 0));
    munmap(pages, size / 2);
    EXPECT_EQ(verify(1), damage("WU", block, size - K42MC_GUARD_OVERHEAD, 0));
    MCLock();
    MCFree("a.c", 2, MC_STD, number(block));
    MCUnlock();
}

TEST(VerifyOff, SaysSo) {
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42mcx_verify(), 0u); }),
              "k42mcx_verify: ERROR: MC not currently initialized\n");
}

TEST(VerifyAtExit, ComesAheadOfTheReport) {
    const Ended end = ended([] {
        checker_on();
        k42mcx_at_exit(K42MCX_EXIT_VERIFY);
        static char *volatile kept;
        kept = static_cast<char *>(k42MC_malloc("a.c", 1, 10));
        kept[10] = 1;
    });
    EXPECT_TRUE(end.exited(0));
    const size_t exit = end.err.find("MC exit"), line = end.err.find("a.c:1:WO:STD:"),
                 cycle = end.err.find("<cycle 1>");
    EXPECT_LT(exit, line);
    EXPECT_LT(line, cycle);
    EXPECT_LT(cycle, end.err.size());
}

} // namespace
