// Switching the checker on and off, what it says while doing so, and the end of the process.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

#include <cerrno>
#include <dlfcn.h>

namespace {

bool lock_fails = false;

std::string init(uint32_t file_type, uint32_t bitmap) {
    return captured_stderr([&] { MCInit(K42MC_BE32(file_type), K42MC_BE32(bitmap)); });
}

std::string deinit() {
    return captured_stderr(MCDeinit);
}

const std::string to_stderr = "MC: Reporting to stderr\n==========MC init==========\n";
const std::string re_init = "==========MC re-init==========\n";
const std::string monitoring = "Monitoring LK/BF\n", by_default = "By default monitoring LK/BF\n";
const std::string shared = "Also monitoring shared memory\n";
const std::string disabling = "Disabling backtrace collection, subject to MCBTFilterIn\n";
const std::string enabling = "Enabling backtrace collection, subject to MCBTFilterOut\n";
const std::string done = "========== MCDeinit: Done ==========\n";

} // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept {
    static const auto next =
        reinterpret_cast<int (*)(pthread_mutex_t *)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return lock_fails && mutex == &gMCLock ? EINVAL : next(mutex);
}

namespace {

TEST(Lifecycle, RefusesBadArguments) {
    EXPECT_EQ(init(MC_TO_STDERR, 0x02),
              "MCInit: ERROR: invalid MC type bitmap 0x2. Supported bitmap is 0xb1\n");
    EXPECT_EQ(init(2, 0xffffffff),
              "MCInit: ERROR: invalid MC type bitmap 0xffffffff. Supported bitmap is 0xb1\n");
    EXPECT_EQ(init(2, 0),
              "MCInit: ERROR: invalid file type 0x2. Specify either 0 (stderr) or 1 (tmp file)\n");
    EXPECT_EQ(gK42MCOn, 0);
}

TEST(Lifecycle, SaysWhatItMonitors) {
    const struct {
        uint32_t bitmap;
        std::string said;
    } starts[] = {{0, monitoring + enabling},     {0x01, monitoring + enabling},
                  {0x80, monitoring + enabling},  {0x10, by_default + shared + enabling},
                  {0x20, by_default + disabling}, {0xB1, monitoring + shared + disabling}};
    for (const auto &start : starts) {
        EXPECT_EQ(init(MC_TO_STDERR, start.bitmap), to_stderr + start.said);
        EXPECT_EQ(gK42MCOn, 1);
        EXPECT_EQ(init(MC_TO_FILE, 0x10), re_init + by_default + shared + enabling);
        EXPECT_EQ(init(MC_TO_FILE, 0), re_init + monitoring + shared + enabling) << "as it was";
        EXPECT_EQ(init(MC_TO_FILE, 0x80),
                  re_init + "Resetting LK detection\n" + monitoring + shared + enabling);
        EXPECT_EQ(init(MC_TO_STDERR, 0xA0),
                  re_init + "Resetting LK detection\n" + by_default + disabling);
        EXPECT_EQ(init(3, 0).substr(0, 32), "MCInit: ERROR: invalid file type");
        EXPECT_EQ(deinit(), done);
        EXPECT_EQ(gK42MCOn, 0);
    }
    EXPECT_EQ(deinit(), "MCDeinit: MC not currently initialized\n");
}

TEST(Lifecycle, StartsAnew) {
    init(MC_TO_STDERR, 1);
    void *block = k42MC_malloc("a.c", 1, 10);
    report(0);
    report(0);
    deinit();
    init(MC_TO_STDERR, 1);
    EXPECT_NE(report(0).find("<cycle 1>-----------\n{\n\n#### This cycle: 0 bytes"), std::string::npos);
    deinit();
    k42MC_free("a.c", 2, block);
}

TEST(Lifecycle, StaysOffWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    // Five blocks: headers of tree, dummy element, live list, two filter lists.
    for (int nth = 1; nth <= 5; ++nth) {
        std::string said;
        failing_malloc(0, false, [&] {
            said = captured_stderr([&] {
                MallocCalls::until_failure = nth;
                MCInit(0, 0);
                MallocCalls::until_failure = 0;
            });
        });
        EXPECT_EQ(said, to_stderr + "MCInit: Memory allocation failure!\n") << nth;
        EXPECT_EQ(gK42MCOn, 0);
    }
    EXPECT_EQ(init(MC_TO_STDERR, 1), to_stderr + monitoring + enabling);
    EXPECT_EQ(deinit(), done);
}

TEST(Lifecycle, SaysWhenTheLockFails) {
    init(MC_TO_STDERR, 1);
    lock_fails = true;
    char filter[] = "a.c:1:LK:STD:0:1";
    const std::string said = captured_stderr([&] {
        void *block = k42MC_malloc("a.c", 1, 10); // unrecorded, without a word
        k42MC_free("a.c", 2, k42MC_realloc("a.c", 3, block, 20));
        EXPECT_EQ(MCLock(), 0);
        MCInit(0, 0);
        MCReport(0);
        EXPECT_EQ(MCCheck(0), 1u);
        EXPECT_EQ(MCBTFilterIn(filter), -1);
        MCDeinit();
    });
    lock_fails = false;
    std::string expected;
    for (const char *name : {"MCInit", "MCReport", "MCCheck", "MCBTFilterSet", "MCDeinit"})
        expected += std::string(name) + ": ERROR: MCLock1 failed!\n";
    EXPECT_EQ(said, expected);
    EXPECT_EQ(deinit(), done);
}

void *left_over = nullptr; // at exit, by the test of that

// Registered before the checker's own handler, and so run after the exit report.
const int registered = atexit([] {
    if (left_over == nullptr)
        return;
    k42MC_free("late.c", 1, left_over);
    k42MC_free("late.c", 3, k42MC_realloc("late.c", 2, k42MC_malloc("late.c", 2, 5), 50));
    k42MC_MM_free("late.c", 4, nullptr);
    MCReport(0);
    fprintf(stderr, "late %s %d\n", address(left_over).c_str(), gK42MCOn);
});

TEST(Lifecycle, ReportsEveryLiveBlockAtExit) {
    ASSERT_EQ(registered, 0);
    const Ended end = ended([] {
        init(MC_TO_STDERR, 1);
        init(MC_TO_STDERR, 1); // one handler all the same
        left_over = k42MC_malloc("left.c", 9, 30);
    });
    EXPECT_TRUE(end.exited(0));
    const size_t last_line = end.err.rfind("late 0x");
    ASSERT_NE(last_line, std::string::npos) << end.err;
    const std::string block = end.err.substr(last_line + 5, end.err.rfind(' ') - last_line - 5);
    EXPECT_EQ(end.err,
              "==========MC exit==========\n-----------<cycle 1>-----------\n{\nleft.c:9:LK:STD:" +
                  block + ":30:1\n\n#### This cycle: 30 bytes held by 1 allocations ####\n" +
                  standard_counters({30, 1}, {30, 1}, {}) +
                  "\n#### Since reset: 30 bytes held by 1 allocations ####\n" +
                  standard_counters({30, 1}, {30, 1}, {}) +
                  "}\nMCReport: ERROR: MC not currently initialized\nlate " + block + " 0\n");
}

TEST(Lifecycle, SaysNothingAtExitAfterDeinit) {
    EXPECT_EQ(ended([] {
                  init(MC_TO_STDERR, 1);
                  deinit();
              }).err,
              "");
    const Ended again = ended([] {
        init(MC_TO_STDERR, 1);
        deinit();
        init(MC_TO_STDERR, 1);
    });
    EXPECT_EQ(again.err.find("MC exit"), again.err.rfind("MC exit"));
    EXPECT_NE(again.err.find("MC exit"), std::string::npos);
}

} // namespace
