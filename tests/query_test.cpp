// Questions about one address, and debug messages.
#include "checker.h"
#include "ended.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace {

using Query = WithChecker;

TEST_F(Query, TellsWhatIsKnownOfABlock) {
    captured_stderr([] { MCInit(0, K42MC_BE32(MC_TYPE_BT_OFF)); });
    auto *block = static_cast<char *>(k42MC_malloc("q.c", 12, 34));
    EXPECT_EQ(check(block), "q.c:12:STD:" + address(block) + ":34:0\nNo backtrace available\n------\n");
    report(9);
    EXPECT_EQ(check(block), "q.c:12:STD:" + address(block) + ":34:1\nNo backtrace available\n------\n");
    EXPECT_EQ(check(block + 1), "Allocation " + address(block + 1) + " not known\n");
    EXPECT_EQ(MCCheck(K42MC_BE_ADDR(block)), 0u);
    const std::string known_as = address(block);
    const auto reversed = K42MC_BE_ADDR(block);
    k42MC_free("q.c", 13, block);
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(MCCheck(reversed), 1u); }),
              "Allocation " + known_as + " not known\n");
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(MCCheck(0), 0u); }), "");
}

TEST_F(Query, ShowsTheTrace) {
    void *block = k42MC_malloc("q.c", 12, 34);
    const std::string text = check(block);
    const std::string start = "q.c:12:STD:" + address(block) + ":34:0\nBacktrace of the allocation:\n";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_EQ(text.substr(text.size() - 8), "\n------\n");
    const auto frames = std::count(text.begin(), text.end(), '\n') - 3;
    EXPECT_TRUE(frames > 3 && frames <= 16) << text;
    checker_off();
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(MCCheck(K42MC_BE_ADDR(block)), 1u); }),
              "MCCheck: ERROR: MC not currently initialized\n");
    checker_on();
    k42MC_free("q.c", 13, block);
}

const std::filesystem::path folder = K42MC_FALLBACK_DIR;

// What the debug files of this program hold.
std::string debug_files() {
    std::string text;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().string().find("debug.txt") != std::string::npos) {
            std::ifstream file(entry.path());
            text += std::string(std::istreambuf_iterator<char>(file), {});
        }
    }
    return text;
}

[[gnu::noinline]] void say_with_trace() {
    MCDebugMsg(1, "value %d\n", 5);
    asm volatile(""); // so that the call above is not a jump
}

TEST(DebugMessages, GoToOneFileOfTheProcess) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const Ended end = ended([] {
        MCDebugMsg(0, nullptr);
        const char *volatile empty = ""; // volatile: the compiler would object
        MCDebugMsg(0, empty);
        MCDebugMsg(0, "%s\n", "100% plain %n %s");
        MCDebugMsg(0, "%s", std::string(300, 'x').c_str());
        MCDebugMsg(0, "\n");
        say_with_trace();
    });
    EXPECT_EQ(end.err, "");
    const std::string text = debug_files();
    const std::string start = "No message.\nNo message.\n100% plain %n %s\n" + std::string(255, 'x') +
                              "\nvalue 5\n---------- backtrace:\n";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_NE(
        text.substr(start.size(), text.find('\n', start.size()) - start.size()).find("say_with_trace"),
        std::string::npos)
        << text;
    EXPECT_EQ(text.substr(text.size() - 14), "]\n------ end.\n");

    const auto entry = *std::filesystem::directory_iterator(folder);
    const std::string name = entry.path().filename();
    unsigned long seconds = 0;
    ASSERT_EQ(sscanf(name.c_str(), "query_test.%lx.debug.txt", &seconds), 1) << name;
    EXPECT_NEAR(static_cast<double>(seconds), static_cast<double>(time(nullptr)), 60);
}

TEST(DebugMessages, GoToStandardErrorWithoutAFolder) {
    std::filesystem::remove_all(folder);
    const Ended end = ended([] { MCDebugMsg(0, "one\n"), MCDebugMsg(0, "two\n"); });
    EXPECT_EQ(end.err.rfind("MCDebugMsg: Failed to open " + folder.string() + "query_test.", 0), 0u);
    const std::string ending = ".debug.txt. Using stderr instead\none\ntwo\n";
    EXPECT_EQ(end.err.substr(end.err.size() - ending.size()), ending);
    std::filesystem::create_directories(folder);
}

} // namespace
