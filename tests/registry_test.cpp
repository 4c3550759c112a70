// What is recorded of blocks, and the lines about releases that go wrong.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

namespace {

using Registry = WithChecker;

uintptr_t number(const void *block) {
    return reinterpret_cast<uintptr_t>(block);
}

// Calls the registry as an allocator of the process's own would.
template <class Call> std::string locked(Call call) {
    return captured_stderr([&] {
        ASSERT_EQ(MCLock(), 1);
        call();
        EXPECT_EQ(MCUnlock(), 0);
    });
}

bool known(const void *block) {
    return check(block).find("not known") == std::string::npos;
}

TEST_F(Registry, ReportsFailedAllocations) {
    EXPECT_EQ(locked([] { MCAlloc("a.c", 5, MC_SHM, 0, 77); }), "a.c:5:NA:0x0:77\n");
}

TEST_F(Registry, ReportsNullReleasesOfNonStandardTypes) {
    EXPECT_EQ(locked([] { MCFree("a.c", 5, MC_STD, 0); }), "");
    const std::string text = captured_stderr([] { k42MC_MM_free("a.c", 6, nullptr); });
    const std::string start = "a.c:6:NF:0x0:0\nBacktrace of the NULL free:\n";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_NE(text.find("registry_test("), std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - 9), "]\n------\n");
}

TEST_F(Registry, ReportsAndForgetsAfterAWrongType) {
    char block[4];
    locked([&] { MCAlloc("a.c", 5, MC_FIX, number(block), 4); });
    const std::string text = locked([&] { MCFree("b.c", 6, MC_SHM, number(block)); });
    const std::string start = "b.c:6:BF: WRONG deallocator type for " + address(block) +
                              "; allocType: FIX, freeType: SHM\nBacktrace of the bad free:\n";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_FALSE(known(block));
    EXPECT_NE(report(9).find(counters("FIX", {}, {4, 1}, {4, 1})), std::string::npos);
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
    EXPECT_NE(text.find("{\nother.c:2:LK:STD:" + address(other) +
                        ":20:2\nnew.c:3:LK:SHM:" + address(block) + ":30:1\n\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(counters("STD", {}, {}, {10, 1})), std::string::npos);
    locked([&] {
        MCFree("x.c", 4, MC_SHM, number(block));
        MCFree("x.c", 4, MC_STD, number(other));
        MCFree("x.c", 4, MC_STD, number(other)); // unknown by now, and nobody's business
    });
    EXPECT_FALSE(known(block) || known(other));
}

TEST_F(Registry, IgnoresTypesThatDoNotExist) {
    char block[4];
    EXPECT_EQ(locked([&] { MCAlloc("a.c", 1, MC_ALLOCATOR_TYPES, number(block), 10); }), "");
    EXPECT_FALSE(known(block));
    locked([&] { MCAlloc("a.c", 1, MC_STD, number(block), 10); });
    EXPECT_NE(locked([&] { MCFree("a.c", 2, 999, number(block)); }).find("freeType: UNKNOWN\n"),
              std::string::npos);
}

TEST_F(Registry, LeavesABlockUnrecordedWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    void *block = nullptr;
    const std::string text =
        captured_stderr([&] { failing_malloc(2, false, [&] { block = k42MC_malloc("a.c", 1, 10); }); });
    EXPECT_EQ(text, "============ MCAlloc: Memory allocation failure ===========\n");
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
    EXPECT_EQ(captured_stderr([] { MCInit(0, K42MC_BE32(MC_TYPE_LK_RESET)); }),
              "==========MC re-init==========\nResetting LK detection\nMonitoring LK/BF\n"
              "Enabling backtrace collection, subject to MCBTFilterOut\n");
    EXPECT_TRUE(known(kept) && known(resized));
    resized = k42MC_realloc("a.c", 3, resized, 12);
    const std::string text = report(0);
    EXPECT_EQ(text.find("a.c:1:"), std::string::npos);
    EXPECT_NE(text.find("a.c:3:LK:STD:" + address(resized) + ":12:1\n"), std::string::npos);
    EXPECT_NE(text.find("Since reset: 12 bytes held by 1 allocations ####\n" +
                        standard_counters({12, 1}, {12, 1}, {10, 1})),
              std::string::npos)
        << text;
    EXPECT_EQ(captured_stderr([&] {
                  k42MC_free("a.c", 4, kept);
                  k42MC_free("a.c", 4, resized);
              }),
              "");
}

[[gnu::noinline]] void *allocate_here(size_t size) {
    auto *block = static_cast<char *>(k42MC_malloc("a.c", 1, size));
    block[0] = 'x'; // so that the call above is not a jump
    return block;
}

TEST_F(Registry, RecordsTheCallChainFromTheCallerOn) {
    void *block = allocate_here(10);
    const std::string text = check(block);
    const std::string title = "Backtrace of the allocation:\n";
    const size_t first = text.find(title) + title.size();
    const std::string frame = text.substr(first, text.find('\n', first) - first);
    EXPECT_NE(frame.find("/registry_test("), std::string::npos) << text;
    EXPECT_NE(frame.find("allocate_here"), std::string::npos) << text;
    k42MC_free("a.c", 2, block);
}

TEST(RegistryOff, LeavesTheMemoryManagersWrappersWithoutAManager) {
    EXPECT_EQ(k42MC_MM_malloc("a.c", 1, 10), nullptr);
    EXPECT_EQ(k42MC_MM_calloc("a.c", 1, 10, 10), nullptr);
    EXPECT_EQ(k42MC_MM_strdup("a.c", 1, "x"), nullptr);
    EXPECT_EQ(k42MC_MM_realloc("a.c", 1, nullptr, 10), nullptr);
    k42MC_MM_free("a.c", 1, nullptr);
    EXPECT_EQ(MCLock(), 0);
    void *volatile block = k42MC_malloc("a.c", 1, 1); // volatile: the compiler would see the mistake
    const Ended end = ended([&] { k42MC_MM_free("a.c", 1, block); });
    EXPECT_EQ(end.out.rfind("k42mc detected BF: alloc(STD) free(SHM)", 0), 0u);
    k42MC_free("a.c", 2, block);
    EXPECT_EQ(captured_stderr([] { MCAlloc("a.c", 5, MC_STD, 0, 77); }), "a.c:5:NA:0x0:77\n");
}

} // namespace
