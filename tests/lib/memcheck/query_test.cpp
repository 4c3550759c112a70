// Questions about one address, and debug messages.
#include "checker.h"
#include "ended.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

using Query = WithChecker;

TEST_F(Query, TellsWhatIsKnownOfABlock) {
    checker_on(MC_TYPE_BT_OFF);
    auto *block = static_cast<char *>(k42MC_malloc("q.c", 12, 34));
    const std::string line = "q.c:12:STD:" + address(block) + ":34:", rest = "No backtrace available\n";
    EXPECT_EQ(check(block), line + "0\n" + rest + "------\n");
    report(9);
    EXPECT_EQ(check(block), line + "1\n" + rest + "------\n");
    EXPECT_EQ(check(block + 1), "Allocation " + address(block + 1) + " not known\n");
    const uintptr_t reversed = K42MC_BE_ADDR(block);
    captured_stderr([=] { EXPECT_EQ(MCCheck(reversed), 0u); });
    k42MC_free("q.c", 13, block);
    captured_stderr([=] { EXPECT_EQ(MCCheck(reversed), 1u); });
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(MCCheck(0), 0u); }), "");
}

[[gnu::noinline]] void *allocate_here() {
    void *block = k42MC_malloc("q.c", 12, 34);
    *static_cast<char *>(block) = 'x'; // so that the call above is not a jump
    return block;
}

TEST_F(Query, ShowsTheTraceFromTheCallerOn) {
    void *block = allocate_here();
    const std::string text = check(block);
    const std::string start = "q.c:12:STD:" + address(block) + ":34:0\nBacktrace of the allocation:\n";
    EXPECT_STARTS(text, start);
    EXPECT_CONTAINS(line_at(text, start.size()), "/query_test(_ZN12_GLOBAL__N_113allocate_here");
    EXPECT_ENDS(text, "]\n------\n");
    const auto frames = std::count(text.begin(), text.end(), '\n') - 3;
    EXPECT_TRUE(frames > 3 && frames <= 16) << text;
    k42MC_free("q.c", 13, block);
}

const fs::path folder = K42MC_FALLBACK_DIR;

[[gnu::noinline]] void say_with_trace() {
    MCDebugMsg(1, "value %d\n", 5);
    asm volatile(""); // so that the call above is not a jump
}

TEST(DebugMessages, GoToOneFileOfTheProcess) {
    fs::remove_all(folder);
    fs::create_directories(folder);
    const Ended end = ended([] {
        MCDebugMsg(0, nullptr);
        const char *volatile empty = ""; // a literal or the lack of an argument: compilers would object
        MCDebugMsg(0, empty, 0);
        MCDebugMsg(0, "%s\n", "100% plain %n %s");
        MCDebugMsg(0, "%s", std::string(300, 'x').c_str());
        MCDebugMsg(0, "\n");
        say_with_trace();
    });
    EXPECT_EQ(end.err, "");
    const fs::path path = *fs::directory_iterator(folder);
    const std::string text = contents(path);
    const std::string start = "No message.\nNo message.\n100% plain %n %s\n" + std::string(255, 'x') +
                              "\nvalue 5\n---------- backtrace:\n";
    EXPECT_STARTS(text, start);
    EXPECT_CONTAINS(line_at(text, start.size()), "say_with_trace");
    EXPECT_ENDS(text, "]\n------ end.\n");
    unsigned long seconds = 0;
    EXPECT_EQ(sscanf(path.filename().c_str(), "query_test.%lx.debug.txt", &seconds), 1) << path;
    EXPECT_NEAR(double(seconds), double(time(nullptr)), 60);
}

TEST(DebugMessages, GoToStandardErrorWithoutAFolder) {
    fs::remove_all(folder);
    const Ended end = ended([] { MCDebugMsg(0, "one\n"), MCDebugMsg(0, "two\n"); });
    EXPECT_STARTS(end.err, "MCDebugMsg: Failed to open " + folder.string() + "query_test.");
    EXPECT_ENDS(end.err, ".debug.txt. Using stderr instead\none\ntwo\n");
    fs::create_directories(folder);
}

} // namespace
