// What is recorded of blocks, and the lines about releases that go wrong.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

#include "random.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <thread>
#include <vector>

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

// Mappings for records, sites and the index; neighbours so close need links, too.
TEST_F(Registry, LeavesBlocksUnrecordedWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    int failures = 0;
    for (int nth = 1; nth < 40; ++nth) {
        checker_off();
        checker_on(MC_TYPE_BT_OFF);
        const auto place = [](int i) { return 0x10000000u + uintptr_t(i) * 2; };
        const std::string text = locked([&] {
            failing_malloc(nth, false, [&] {
                for (int i = 0; i < 9000; ++i)
                    MCAlloc("a.c", i, MC_STD, place(i), 10);
            });
        });
        const bool failed = text == "============ MCAlloc: Memory allocation failure ===========\n";
        const Count count{failed ? 89990u : 90000u, failed ? 8999u : 9000u};
        EXPECT_TRUE(failed || text.empty()) << text;
        EXPECT_CONTAINS(report(9), counters("STD", {count, count, {}}));
        locked([&] {
            for (int i = 0; i < 9000; ++i)
                MCFree("a.c", 0, MC_STD, place(i));
        });
        EXPECT_CONTAINS(report(9), counters("STD", {{}, count, count}));
        failures += failed;
    }
    EXPECT_GT(failures, 30);
}

// Neighbours closer than guarded blocks can be, and addresses that no block has.
TEST_F(Registry, KnowsBlocksAtAnyAddressesOverRandomOperations) {
    Random random;
    const uintptr_t bases[] = {1, 0x10000000, uintptr_t(-1) / 2, uintptr_t(-1) - 40};
    std::map<uintptr_t, int> model;
    checker_off(), checker_on(MC_TYPE_BT_OFF);
    captured_stderr([&] {
        for (int step = 0; step < 20000; ++step) {
            const uintptr_t place = bases[random() % 4] + random() % 40;
            MCLock();
            if (random() % 2)
                MCAlloc("a.c", model[place] = step, MC_STD, place, 1);
            else
                model.erase(place), MCFree("a.c", 0, MC_STD, place);
            MCUnlock();
            const uintptr_t other = bases[random() % 4] + random() % 40;
            ASSERT_EQ(MCCheck(K42MC_BE_ADDR(other)), !model.contains(other));
        }
    });
    std::map<int, uintptr_t> in_order;
    for (const auto &[place, step] : model)
        in_order[step] = place;
    std::string expected;
    for (const auto &[step, place] : in_order)
        expected += "a.c:" + std::to_string(step) +
                    ":LK:STD:" + address(reinterpret_cast<void *>(place)) + ":1:1\n";
    EXPECT_CONTAINS(report(1), "{\n" + expected + "\n####");
}

// In several chunks of records, most of which were another block's before.
TEST_F(Registry, ListsByAgeHoweverRecordsLie) {
    Random random;
    constexpr size_t at_first = 15000, most = 199; // for a terminal
    std::vector<std::pair<int, uintptr_t>> live;
    int step = 0;
    checker_off(), checker_on(MC_TYPE_BT_OFF);
    MCLock();
    const auto allocate = [&] {
        live.emplace_back(step, 0x10000000 + static_cast<uintptr_t>(step) * K42MC_GUARD_OVERHEAD);
        MCAlloc("a.c", step++, MC_STD, live.back().second, 1);
    };
    const auto release = [&] {
        std::swap(live[random() % live.size()], live.back());
        MCFree("a.c", 0, MC_STD, live.back().second);
        live.pop_back();
    };
    while (live.size() < at_first)
        allocate();
    while (live.size() > most)
        release();
    for (int i = 0; i < 300; ++i)
        release(), allocate();
    MCUnlock();
    std::ranges::sort(live);
    std::string expected;
    for (const auto &[line, place] : live)
        expected += "a.c:" + std::to_string(line) +
                    ":LK:STD:" + address(reinterpret_cast<void *>(place)) + ":1:1\n";
    EXPECT_CONTAINS(report(1), "{\n" + expected + "\n####");
}

unsigned long resident_pages() {
    const std::string statm = contents("/proc/self/statm");
    return std::stoul(statm.substr(statm.find(' ')));
}

// Sites that no block needs any more make room for others.
TEST_F(Registry, ForgetsSites) {
    NEEDS_OWN_MALLOC(); // others keep what is freed
    constexpr int kept_count = 100;
    void *kept[kept_count];
    const auto churn = [&](int count) {
        for (int i = 0; i < count; ++i)
            k42MC_free("a.c", 1, k42MC_malloc("a.c", i, 10));
    };
    for (int i = 0; i < kept_count; ++i) {
        kept[i] = k42MC_malloc("kept.c", i, 10);
        churn(200);
    }
    const auto before = resident_pages();
    churn(200000);
    EXPECT_LT(resident_pages(), before + 1000);
    for (int i = 0; i < kept_count; ++i) {
        const std::string text = check(kept[i]);
        EXPECT_STARTS(text, "kept.c:" + std::to_string(i) + ":STD:");
        EXPECT_CONTAINS(text, "registry_test(");
        k42MC_free("a.c", 2, kept[i]);
    }
}

// What one thread frees, another records with again.
TEST_F(Registry, UsesRecordsAgainThatOtherThreadsGaveBack) {
    NEEDS_OWN_MALLOC();
    checker_off(), checker_on(MC_TYPE_BT_OFF);
    void *blocks[5000];
    const auto pass_on = [&](int rounds) {
        for (int round = 0; round < rounds; ++round) {
            for (void *&block : blocks)
                block = k42MC_malloc("a.c", 1, 10);
            std::thread([&] {
                for (void *block : blocks)
                    k42MC_free("a.c", 2, block);
            }).join();
        }
    };
    pass_on(10);
    const auto before = resident_pages();
    pass_on(100);
    EXPECT_LT(resident_pages(), before + 500);
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

// A block in hand is out of the reports' sight: it does not become older by them.
TEST_F(Registry, LeavesTheAgeOfABlockThatIsReallocatedInVain) {
    NEEDS_OWN_MALLOC();
    void *const block = k42MC_malloc("a.c", 1, 10);
    const auto reallocate_in_vain = [&](void (*meanwhile)()) {
        MallocCalls::during_allocation = meanwhile;
        return captured_stderr([&] {
            failing_malloc(1, false, [&] { EXPECT_EQ(k42MC_realloc("a.c", 2, block, 20), nullptr); });
            MallocCalls::during_allocation = nullptr;
        });
    };
    const auto with_age = [&](int age) {
        return "a.c:1:STD:" + address(block) + ":10:" + std::to_string(age) + "\n";
    };
    report(9);
    const auto two_reports = [] { MCReport(0), MCReport(0); };
    EXPECT_FALSE(contains(reallocate_in_vain(two_reports), "a.c:1"));
    EXPECT_STARTS(check(block), with_age(1));
    report(9);
    EXPECT_STARTS(check(block), with_age(2));
    reallocate_in_vain([] { MCReport(0), MCInit(0, K42MC_BE32(MC_TYPE_LK_RESET)), MCReport(0); });
    EXPECT_STARTS(check(block), with_age(2));
    EXPECT_FALSE(contains(report(0), "a.c:1"));
    EXPECT_STARTS(check(block), with_age(2));
    k42MC_free("a.c", 3, block);
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
    EXPECT_GT(switched_on, 30);
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
