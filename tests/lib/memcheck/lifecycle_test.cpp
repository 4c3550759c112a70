// Switching the checker on and off, what it says while doing so, and the end of the process.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

#include <cerrno>
#include <dlfcn.h>

namespace {

bool lock_fails = false;

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
        EXPECT_EQ(checker_on(start.bitmap), to_stderr + start.said);
        EXPECT_EQ(gK42MCOn, 1);
        EXPECT_EQ(init(MC_TO_FILE, 0x10), re_init + by_default + shared + enabling);
        EXPECT_EQ(init(MC_TO_FILE, 0), re_init + monitoring + shared + enabling) << "as it was";
        EXPECT_EQ(init(MC_TO_FILE, 0x80),
                  re_init + "Resetting LK detection\n" + monitoring + shared + enabling);
        EXPECT_EQ(checker_on(0xA0), re_init + "Resetting LK detection\n" + by_default + disabling);
        EXPECT_STARTS(init(3, 0), "MCInit: ERROR: invalid file type");
        EXPECT_EQ(checker_off(), done);
        EXPECT_EQ(gK42MCOn, 0);
    }
}

TEST(Lifecycle, StartsAnew) {
    checker_on();
    void *block = k42MC_malloc("a.c", 1, 10);
    report(0);
    checker_off();
    checker_on();
    EXPECT_EQ(report(0), report_text(1, "", {}, {}));
    checker_off();
    k42MC_free("a.c", 2, block);
}

TEST(Lifecycle, StaysOffWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    checker_on(),
        checker_off(); // makes ready for forks and report files: what follows is the checker's own
    // Records, sites, headers of two filter lists.
    for (int nth = 1; nth <= 4; ++nth) {
        const auto start = [=] {
            const int releases = MallocCalls::releases;
            failing_malloc(nth, false, [] { MCInit(0, 0); });
            EXPECT_EQ(MallocCalls::releases - releases, nth - 1) << "nothing is left";
        };
        EXPECT_EQ(captured_stderr(start), to_stderr + "MCInit: Memory allocation failure!\n") << nth;
        EXPECT_EQ(gK42MCOn, 0);
    }
    EXPECT_EQ(checker_on(), to_stderr + monitoring + enabling);
    EXPECT_EQ(checker_off(), done);
}

// What each of the functions says that cannot do its work.
std::string refusals() {
    char filter[] = "a.c:1:LK:STD:0:1";
    return captured_stderr([&] {
        MCReport(0);
        EXPECT_EQ(MCCheck(K42MC_BE_ADDR(filter)), 1u);
        EXPECT_EQ(MCBTFilterIn(filter), -1);
        MCBTFilterReset();
        MCDeinit();
    });
}

TEST(Lifecycle, RefusesEverythingWhileOff) {
    const std::string off = "MC not currently initialized\n";
    EXPECT_EQ(refusals(), "MCReport: ERROR: " + off + "MCCheck: ERROR: " + off +
                              "MCBTFilterSet: ERROR: " + off + "MCBTFilterReset: ERROR: " + off +
                              "MCDeinit: " + off);
}

TEST(Lifecycle, SaysWhenTheLockFails) {
    checker_on();
    lock_fails = true;
    EXPECT_EQ(captured_stderr([] {
                  void *block = k42MC_malloc("a.c", 1, 10); // unrecorded
                  k42MC_free("a.c", 2, k42MC_realloc("a.c", 3, block, 20));
                  EXPECT_EQ(MCLock(), 0);
              }),
              "");
    const std::string said = checker_on() + refusals();
    lock_fails = false;
    std::string expected;
    for (const char *name :
         {"MCInit", "MCReport", "MCCheck", "MCBTFilterSet", "MCBTFilterReset", "MCDeinit"})
        expected += std::string(name) + ": ERROR: MCLock1 failed!\n";
    EXPECT_EQ(said, expected);
    EXPECT_EQ(checker_off(), done);
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
    fprintf(stderr, "late %d\n", gK42MCOn);
    fputs(address(left_over).c_str(), stdout);
});

TEST(Lifecycle, ReportsEveryLiveBlockAtExit) {
    ASSERT_EQ(registered, 0);
    const Ended end = ended([] {
        checker_on();
        checker_on(); // one handler all the same
        left_over = k42MC_malloc("left.c", 9, 30);
    });
    EXPECT_TRUE(end.exited(0));
    const Counts one{{30, 1}, {30, 1}, {}};
    EXPECT_EQ(end.err, "==========MC exit==========\n" +
                           report_text(1, "left.c:9:LK:STD:" + end.out + ":30:1\n", one, one) +
                           "MCReport: ERROR: MC not currently initialized\nlate 0\n");
}

TEST(Lifecycle, SaysNothingAtExitAfterDeinit) {
    EXPECT_EQ(ended([] { checker_on(), checker_off(); }).err, "");
    EXPECT_EQ(ended([] { checker_on(), checker_off(), checker_on(); }).err,
              "==========MC exit==========\n" + report_text(1, "", {}, {}));
}

} // namespace
