// What is recorded of blocks, and the lines about releases that go wrong.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

#include <fcntl.h>

namespace {

using Registry = WithChecker;

// Calls the registry as an allocator of the process's own would.
template <class Call> std::string locked(Call call) {
    return captured_stderr([&] {
        ASSERT_EQ(MCLock(), 1);
        call();
        EXPECT_EQ(MCUnlock(), 0);
    });
}

bool known(const void *block) {
    return !contains(check(block), "not known");
}

TEST_F(Registry, ReportsWhatGoesWrong) {
    EXPECT_EQ(locked([] { MCAlloc("a.c", 5, MC_SHM, 0, 77); }), "a.c:5:NA:0x0:77\n");
    EXPECT_EQ(locked([] { MCFree("a.c", 5, MC_STD, 0); }), "");
    const std::string null = captured_stderr([] { k42MC_MM_free("a.c", 6, nullptr); });
    EXPECT_STARTS(null, "a.c:6:NF:0x0:0\nBacktrace of the NULL free:\n");
    EXPECT_CONTAINS(null, "registry_test(");
    EXPECT_ENDS(null, "]\n------\n");

    char block[4];
    EXPECT_EQ(locked([&] { MCAlloc("a.c", 1, MC_ALLOCATOR_TYPES, number(block), 10); }), "");
    EXPECT_FALSE(known(block));
    locked([&] { MCAlloc("a.c", 5, MC_FIX, number(block), 4); });
    EXPECT_STARTS(locked([&] { MCFree("b.c", 6, MC_SHM, number(block)); }),
                  "b.c:6:BF: WRONG deallocator type for " + address(block) +
                      "; allocType: FIX, freeType: SHM\nBacktrace of the bad free:\n");
    EXPECT_FALSE(known(block));
    EXPECT_CONTAINS(report(9), counters("FIX", {{}, {4, 1}, {4, 1}}));
    locked([&] { MCAlloc("a.c", 1, MC_STD, number(block), 10); });
    EXPECT_CONTAINS(locked([&] { MCFree("a.c", 2, 999, number(block)); }), "freeType: UNKNOWN\n");
}

TEST_F(Registry, TakesABlockAtAKnownAddressForANewOne) {
    char block[4], other[4];
    locked([&] {
        MCAlloc("old.c", 1, MC_STD, number(block), 10);
        MCAlloc("other.c", 2, MC_STD, number(other), 20);
    });
    report(9);
    locked([&] { MCAlloc("new.c", 3, MC_SHM, number(block), 30); });
    const std::string text = report(1);
    EXPECT_CONTAINS(text, "{\nother.c:2:LK:STD:" + address(other) +
                              ":20:2\nnew.c:3:LK:SHM:" + address(block) + ":30:1\n\n");
    EXPECT_CONTAINS(text, counters("STD", {{}, {}, {10, 1}}));
    locked([&] {
        MCFree("x.c", 4, MC_SHM, number(block));
        MCFree("x.c", 4, MC_STD, number(other));
        MCFree("x.c", 4, MC_STD, number(other)); // unknown by now, and nobody's business
    });
    EXPECT_FALSE(known(block) || known(other));
}

TEST_F(Registry, LeavesABlockUnrecordedWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    void *block = nullptr;
    const auto allocate = [&] { block = k42MC_malloc("a.c", 1, 10); };
    EXPECT_EQ(captured_stderr([&] { failing_malloc(2, false, allocate); }),
              "============ MCAlloc: Memory allocation failure ===========\n");
    EXPECT_FALSE(known(block));
    EXPECT_EQ(captured_stderr([&] { k42MC_free("a.c", 2, block); }), "");
}

TEST_F(Registry, KnowsOnlyWhatWasAllocatedWhileItWasOn) {
    checker_off();
    void *before = k42MC_malloc("a.c", 1, 10);
    checker_on();
    EXPECT_EQ(captured_stderr([&] {
                  before = k42MC_realloc("a.c", 2, before, 20); // from here on it is recorded
                  k42MC_free("a.c", 3, before);
                  k42MC_free("a.c", 4, nullptr);
              }),
              "");
    void *during = k42MC_malloc("a.c", 5, 10);
    checker_off();
    EXPECT_EQ(captured_stderr([&] { k42MC_free("a.c", 6, during); }), "");
    checker_on();
}

// A reset takes blocks out of the reports, not out of the registry.
TEST_F(Registry, KeepsBlocksQuietlyAfterAReset) {
    void *kept = k42MC_malloc("a.c", 1, 10), *resized = k42MC_malloc("a.c", 2, 10);
    checker_on(MC_TYPE_LK_RESET);
    EXPECT_TRUE(known(kept) && known(resized));
    resized = k42MC_realloc("a.c", 3, resized, 12);
    const Counts counts{{12, 1}, {12, 1}, {10, 1}};
    EXPECT_EQ(report(0), report_text(1, "a.c:3:LK:STD:" + address(resized) + ":12:1\n", counts, counts));
    for (void *block : {kept, resized})
        EXPECT_EQ(captured_stderr([=] { k42MC_free("a.c", 4, block); }), "");
}

struct Use {
    bool on, failed; // the checker was switched on; a call said that it failed
};

// A process's use of the checkers from start to end.
Use use_everything(int descriptor) {
    char filter[] = "a.c:1:LK:STD:0x1:10:1";
    FDAddEvent("a", descriptor, FD_EV_OPEN); // before the checker sees what the history takes
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    Use use = {MCLock() == 1, false};
    if (use.on)
        MCUnlock();
    use.failed |= MCBTFilterOut(filter) != 0;
    void *blocks[20];
    for (int i = 0; i < 20; ++i)
        blocks[i] = k42MC_malloc("a.c", i, 10);
    void *const moved = k42MC_realloc("a.c", 20, blocks[0], 500);
    use.failed |= moved == nullptr; // which realloc says by that alone
    blocks[0] = moved != nullptr ? moved : blocks[0];
    MCReport(0);
    k42mcx_verify();
    const int file = open("/dev/null", O_WRONLY);
    use.failed |= k42mcx_report_json(file, 0) != 0;
    use.failed |= k42mcx_fd_report_json(file) != 0;
    close(file);
    for (void *block : blocks)
        k42MC_free("a.c", 21, block);
    MCReport(0);
    MCDeinit();
    return use;
}

TEST(RegistryOff, OutlivesTheFailureOfAnyAllocation) {
    NEEDS_OWN_MALLOC();
    checker_on(), checker_off();
    int switched_on = 0;
    bool met = true;
    for (int nth = 1; met; ++nth) {
        Use use = {};
        const std::string text = captured_stderr([&] {
            failing_malloc(nth, false, [&] {
                use = use_everything(10 + nth);
                met = MallocCalls::until_failure == 0;
            });
        });
        switched_on += use.on;
        EXPECT_EQ(contains(text, "\n#### Since reset: 0 bytes held by 0 allocations ####\n"), use.on)
            << nth << text;
        EXPECT_EQ(use.failed || contains(text, "ERROR") || contains(text, "failure") ||
                      contains(text, ":NA:"),
                  met)
            << nth << text;
    }
    EXPECT_GT(switched_on, 40);
}

TEST(RegistryOff, LeavesTheMemoryManagersWrappersWithoutAManager) {
    EXPECT_EQ(k42MC_MM_malloc("a.c", 1, 10), nullptr);
    EXPECT_EQ(k42MC_MM_calloc("a.c", 1, 10, 10), nullptr);
    EXPECT_EQ(k42MC_MM_strdup("a.c", 1, "x"), nullptr);
    EXPECT_EQ(k42MC_MM_realloc("a.c", 1, nullptr, 10), nullptr);
    k42MC_MM_free("a.c", 1, nullptr);
    EXPECT_EQ(MCLock(), 0);
    void *volatile block = k42MC_malloc("a.c", 1, 1); // volatile: the compiler would see the mistake
    expect_defect("BF: alloc(STD) free(SHM)", [&] { k42MC_MM_free("a.c", 1, block); });
    k42MC_free("a.c", 2, block);
    EXPECT_EQ(captured_stderr([] { MCAlloc("a.c", 5, MC_STD, 0, 77); }), "a.c:5:NA:0x0:77\n");
}

} // namespace
