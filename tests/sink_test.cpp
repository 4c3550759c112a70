// Report files: where they go, when the terminal is left for them, and what a forked child does.
#include "checker.h"
#include "ended.h"

#include <filesystem>
#include <fnmatch.h>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path reports = K42MC_REPORT_DIR, fallback = K42MC_FALLBACK_DIR;

class Sink : public testing::Test {
protected:
    void SetUp() override {
        remove(reports);
        remove(fallback);
        fs::create_directories(fallback);
    }
    void TearDown() override {
        captured_stderr([] {
            if (gK42MCOn)
                MCDeinit();
        });
        SetUp();
    }

    // Whatever stands there, a file in the place of the folder included.
    static void remove(const fs::path &folder) { fs::remove_all(folder.parent_path()); }
};

std::string read(const fs::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<fs::path> files_in(const fs::path &folder) {
    std::vector<fs::path> files;
    if (fs::is_directory(folder)) {
        for (const auto &entry : fs::directory_iterator(folder))
            files.push_back(entry.path());
    }
    return files;
}

const std::string two_digits = "[0-9][0-9]";
const std::string name_pattern = "sink_test.MC." + two_digits + two_digits + two_digits + two_digits +
                                 two_digits + two_digits + ".txt";

bool matches(const std::string &text, const std::string &pattern) {
    return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

std::string init_to_file() {
    return captured_stderr([] { MCInit(K42MC_BE32(MC_TO_FILE), 0); });
}

TEST_F(Sink, IsAFileNamedAfterProgramAndTime) {
    const std::string said = init_to_file();
    ASSERT_EQ(files_in(reports).size(), 1u);
    const fs::path path = files_in(reports)[0];
    EXPECT_EQ(said, "MC: Reporting to \"" + path.string() + "\"\n");
    EXPECT_TRUE(matches(path.filename(), name_pattern)) << path;
    tm local{};
    const time_t now = time(nullptr);
    localtime_r(&now, &local);
    char day[32];
    strftime(day, sizeof day, "sink_test.MC.%y%m%d", &local);
    EXPECT_EQ(path.filename().string().rfind(day, 0), 0u);
    const std::string start = "==========MC init==========\nMonitoring LK/BF\n"
                              "Enabling backtrace collection, subject to MCBTFilterOut\n";
    EXPECT_EQ(read(path), start);
    EXPECT_EQ(captured_stderr([] { MCInit(0, 0), MCReport(0), MCDeinit(); }), "");
    EXPECT_NE(read(path).find("MC re-init"), std::string::npos);
    EXPECT_NE(read(path).find("<cycle 1>"), std::string::npos);
    EXPECT_NE(read(path).find("========== MCDeinit: Done ==========\n"), std::string::npos);
}

TEST_F(Sink, FallsBackWhenTheFolderCannotBeHad) {
    std::ofstream(reports.parent_path()) << "a file where the folder should be";
    EXPECT_NE(init_to_file().find(fallback.string() + "sink_test.MC."), std::string::npos);
    EXPECT_EQ(files_in(fallback).size(), 1u);
    captured_stderr(MCDeinit);

    remove(fallback);
    const std::string said = init_to_file();
    EXPECT_TRUE(matches(said, fallback.string() + name_pattern +
                                  ": No such file or directory\nMCInit: Failed to open report file\n"))
        << said;
    EXPECT_EQ(gK42MCOn, 0);
}

TEST_F(Sink, IsNeverReachedThroughASymbolicLink) {
    fs::create_directories(reports);
    const fs::path victim = fallback / "victim";
    std::ofstream(victim) << "precious";
    const time_t now = time(nullptr);
    for (int ahead = 0; ahead < 5; ++ahead) {
        tm local{};
        const time_t then = now + ahead;
        localtime_r(&then, &local);
        char name[64];
        strftime(name, sizeof name, "sink_test.MC.%y%m%d%H%M%S.txt", &local);
        fs::create_symlink(victim, reports / name);
    }
    init_to_file();
    EXPECT_EQ(read(victim), "precious");
}

TEST_F(Sink, TakesLongReportsOffTheTerminal) {
    checker_on();
    std::vector<void *> blocks;
    while (blocks.size() < 199)
        blocks.push_back(k42MC_malloc("a.c", 1, 1));
    EXPECT_EQ(report(1).rfind("-----------<cycle 1>", 0), 0u);
    blocks.push_back(k42MC_malloc("a.c", 1, 1));
    EXPECT_EQ(report(3).rfind("-----------<cycle 2>", 0), 0u) << "no block can be listed";

    remove(fallback);
    std::ofstream(reports.parent_path()) << "no folder here";
    const std::string failed = report(3);
    EXPECT_EQ(failed.rfind(
                  "MCReport: Too many reports for terminal: switching to file\n" + fallback.string(), 0),
              0u)
        << failed;
    EXPECT_NE(failed.find("\nMCReport: Failed to open report file\n"), std::string::npos);
    EXPECT_EQ(captured_stderr([] { k42MC_MM_free("a.c", 1, nullptr); }).substr(0, 8), "a.c:1:NF")
        << "still there";

    remove(reports);
    EXPECT_EQ(report(3).rfind("MCReport: Too many reports for terminal: switching to file\n"
                              "MC: Reporting to \"" +
                                  reports.string(),
                              0),
              0u);
    ASSERT_EQ(files_in(reports).size(), 1u);
    const std::string text = read(files_in(reports)[0]);
    EXPECT_EQ(text.rfind("-----------<cycle 3>", 0), 0u) << "the failed one was none";
    EXPECT_NE(text.find("a.c:1:LK:STD:" + address(blocks[0]) + ":1:3\n"), std::string::npos);
    for (void *block : blocks)
        k42MC_free("a.c", 2, block);
}

TEST_F(Sink, IsItsOwnInAForkedChild) {
    const Ended end = ended([] {
        init_to_file();
        void *block = k42MC_malloc("fork.c", 1, 10);
        for (int child = 0; child < 3; ++child) {
            if (fork() == 0) {
                if (child == 0)
                    _exit(0); // writes nothing, and so has no file
                MCReport(0);
                MCDeinit();
                exit(0);
            }
        }
        while (wait(nullptr) > 0) {
        }
        MCReport(0);
        k42MC_free("fork.c", 2, block);
        MCDeinit();
    });
    EXPECT_TRUE(end.exited(0));
    const auto files = files_in(reports);
    ASSERT_EQ(files.size(), 3u);
    int parents = 0;
    for (const fs::path &path : files) {
        const std::string text = read(path);
        const bool parent = text.rfind("==========MC init", 0) == 0;
        parents += parent;
        EXPECT_EQ(text.find("-----------<cycle 1>"), parent ? text.find("Out\n") + 4 : 0) << text;
        EXPECT_EQ(text.find("<cycle"), text.rfind("<cycle"));
        EXPECT_NE(text.find("fork.c:1:LK"), std::string::npos);
    }
    EXPECT_EQ(parents, 1);
}

} // namespace
