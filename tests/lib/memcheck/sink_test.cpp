// Report files: where they go, when the terminal is left for them, and what a forked child does.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"
#include "traffic.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fnmatch.h>
#include <fstream>
#include <sys/stat.h>
#include <thread>
#include <vector>

// In the place of libc's, so that names do not depend on the second in which a test runs.
extern "C" time_t time(time_t *result) noexcept {
    constexpr time_t now = 1'799'999'999;
    if (result != nullptr)
        *result = now;
    return now;
}

namespace {

namespace fs = std::filesystem;

const fs::path reports = K42MC_REPORT_DIR, fallback = K42MC_FALLBACK_DIR;

// Whatever stands there, a file in the place of the folder included.
void clear(const fs::path &folder) {
    fs::remove_all(folder.parent_path());
}

class Sink : public testing::Test {
protected:
    void SetUp() override {
        clear(reports);
        clear(fallback);
        fs::create_directories(fallback);
    }
    void TearDown() override {
        checker_off();
        SetUp();
    }
};

std::vector<fs::path> files_in(const fs::path &folder) {
    if (!fs::is_directory(folder))
        return {};
    return {fs::directory_iterator(folder), {}};
}

// Of every report file.
std::string report_name() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char name[64];
    strftime(name, sizeof name, "sink_test.MC.%y%m%d%H%M%S.txt", &local);
    return name;
}

const std::string name = report_name();

bool matches(const std::string &text, const std::string &pattern) {
    return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

TEST_F(Sink, IsAFileNamedAfterProgramAndTime) {
    const std::string said = init(MC_TO_FILE, 0);
    ASSERT_EQ(files_in(reports).size(), 1u);
    const fs::path path = files_in(reports)[0];
    EXPECT_EQ(said, "MC: Reporting to \"" + path.string() + "\"\n");
    EXPECT_EQ(path.filename(), name);
    const std::string start = "==========MC init==========\nMonitoring LK/BF\n"
                              "Enabling backtrace collection, subject to MCBTFilterOut\n";
    EXPECT_EQ(contents(path), start);
    EXPECT_EQ(captured_stderr([] { MCInit(0, 0), MCReport(0), MCDeinit(); }), "");
    EXPECT_PRED2(matches, contents(path),
                 start + "*MC re-init*<cycle 1>*========== MCDeinit: Done ==========\n");
}

TEST_F(Sink, TakesThePlaceOfAFileOfThatName) {
    fs::create_directories(reports);
    const fs::path other = reports / ("x" + name);
    std::ofstream(reports / name) << "old";
    std::ofstream(other) << "old";
    init(MC_TO_FILE, 0);
    checker_off();
    EXPECT_STARTS(contents(reports / name), "==========MC init");
    EXPECT_EQ(contents(other), "old");
    EXPECT_EQ(files_in(reports).size(), 2u);
}

TEST_F(Sink, FallsBackWhenTheFolderCannotBeHad) {
    std::ofstream(reports.parent_path()) << "a file where the folder should be";
    EXPECT_CONTAINS(init(MC_TO_FILE, 0), fallback.string() + "sink_test.MC.");
    EXPECT_EQ(files_in(fallback).size(), 1u);
    checker_off();

    clear(fallback);
    EXPECT_EQ(init(MC_TO_FILE, 0),
              (fallback / name).string() +
                  ": No such file or directory\nMCInit: Failed to open report file\n");
    EXPECT_EQ(gK42MCOn, 0);
}

TEST_F(Sink, IsNeverReachedThroughASymbolicLink) {
    fs::create_directories(reports);
    const fs::path victim = fallback / "victim";
    std::ofstream(victim) << "precious";
    fs::create_symlink(victim, reports / name);
    init(MC_TO_FILE, 0);
    EXPECT_EQ(contents(victim), "precious");
}

// Somebody reads there, so that it could be opened.
TEST_F(Sink, IsNoPipe) {
    fs::create_directories(reports);
    const fs::path pipe = reports / name;
    ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_CONTAINS(init(MC_TO_FILE, 0), fallback.string() + "sink_test.MC.");
    close(reader);
}

TEST_F(Sink, TakesLongReportsOffTheTerminal) {
    checker_on();
    std::vector<void *> blocks;
    while (blocks.size() < 199)
        blocks.push_back(k42MC_malloc("a.c", 1, 1));
    EXPECT_STARTS(report(1), "-----------<cycle 1>");
    blocks.push_back(k42MC_malloc("a.c", 1, 1));
    EXPECT_STARTS(report(3), "-----------<cycle 2>"); // no block can be listed

    clear(fallback);
    std::ofstream(reports.parent_path()) << "no folder here";
    const std::string switching = "MCReport: Too many reports for terminal: switching to file\n";
    const std::string failed = report(3);
    EXPECT_STARTS(failed, switching + fallback.string());
    EXPECT_ENDS(failed, "\nMCReport: Failed to open report file\n");
    EXPECT_STARTS(captured_stderr([] { k42MC_MM_free("a.c", 1, nullptr); }), "a.c:1:NF"); // still there

    clear(reports);
    EXPECT_STARTS(report(3), switching + "MC: Reporting to \"" + reports.string());
    ASSERT_EQ(files_in(reports).size(), 1u);
    const std::string text = contents(files_in(reports)[0]);
    EXPECT_STARTS(text, "-----------<cycle 3>"); // the failed one was none
    EXPECT_CONTAINS(text, "a.c:1:LK:STD:" + address(blocks[0]) + ":1:3\n");
    for (void *block : blocks)
        k42MC_free("a.c", 2, block);
}

// A folder that does not hold it makes it longer than a path may be.
TEST_F(Sink, HasAPathThatIsCut) {
    const std::string long_name = [] {
        std::string folders;
        while (folders.size() < 1100)
            folders += "a-folder-that-is-there/";
        return (fallback.string() + folders)[1022] == '/' ? 'x' + folders : folders;
    }();
    const std::string wanted = fallback.string() + long_name;
    fs::create_directories(fs::path(wanted.substr(0, 1023)).parent_path());
    const Ended end = ended([&] {
        program_invocation_short_name = const_cast<char *>(long_name.c_str());
        init(MC_TO_FILE, 0);
        MCReport(0);
        k42mcx_at_exit(K42MCX_EXIT_JSON);
        std::exit(0);
    });
    const std::string cut = wanted.substr(0, 1023);
    EXPECT_STARTS(contents(cut), "==========MC init==========\n");
    EXPECT_CONTAINS(contents(cut), "==========MC exit==========\n");
    EXPECT_ENDS(end.err, ": File name too long\n"); // of the JSON, whose name is no other one
}

// A file that somebody else may read, or change, is not written.
TEST_F(Sink, IsNoFileOfAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make one";
    fs::create_directories(reports);
    const fs::path path = reports / name;
    std::ofstream(path) << "old";
    ASSERT_EQ(chown(path.c_str(), 1, 1), 0);
    EXPECT_CONTAINS(init(MC_TO_FILE, 0), fallback.string() + "sink_test.MC.");
    EXPECT_EQ(contents(path), "old");
}

// Whatever fails first, the next try is a new one.
TEST_F(Sink, IsTriedAnewAfterMemoryRanOut) {
    NEEDS_OWN_MALLOC();
    for (int nth = 1; nth <= 8; ++nth) {
        const Ended end = ended([=] {
            failing_malloc(nth, true, [] { MCInit(K42MC_BE32(MC_TO_FILE), 0); });
            MCInit(K42MC_BE32(MC_TO_FILE), 0);
            _exit(gK42MCOn ? 0 : 1);
        });
        EXPECT_TRUE(end.exited(0)) << end.err;
        EXPECT_FALSE(contains(end.err, "Success")) << end.err;
    }
}

TEST_F(Sink, IsNotInAFolderThatWasTakenBack) {
    const fs::path own = fallback / "own";
    for (const char *none : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(k42mcx_report_folder(own.c_str()), 0);
        EXPECT_EQ(k42mcx_report_folder(none), 0);
        EXPECT_EQ(init(MC_TO_FILE, 0), "MC: Reporting to \"" + (reports / name).string() + "\"\n");
        checker_off();
        EXPECT_FALSE(fs::exists(own));
    }
}

// Whatever the parent's threads are doing.
TEST_F(Sink, IsItsOwnInAForkedChild) {
    NEEDS_OWN_MALLOC(); // a sanitizer's has locks that a forked child finds taken
    const Ended end = ended([] {
        init(MC_TO_FILE, 0);
        void *block = k42MC_malloc("fork.c", 1, 10);
        std::atomic<bool> done = false;
        const auto allocate = [&](unsigned seed) {
            Traffic traffic(seed);
            while (!done)
                traffic.step();
        };
        std::thread threads[] = {std::thread(allocate, 1), std::thread(allocate, 2)};
        for (int child = 0; child < 12; ++child) {
            if (fork() == 0) {
                if (child % 3 == 0)
                    _exit(0); // writes nothing, and so has no file
                if (child % 3 == 1)
                    close(STDIN_FILENO); // the file gets its number
                MCReport(0);
                MCDeinit();
                exit(0);
            }
        }
        while (wait(nullptr) > 0) {
        }
        done = true;
        for (std::thread &thread : threads)
            thread.join();
        MCReport(0);
        k42MC_free("fork.c", 2, block);
        MCDeinit();
    });
    EXPECT_TRUE(end.exited(0));
    const auto files = files_in(reports);
    ASSERT_EQ(files.size(), 9u);
    int parents = 0;
    for (const fs::path &path : files) {
        const std::string text = contents(path);
        const bool parent = text.starts_with("==========MC init");
        parents += parent;
        EXPECT_EQ(text.find("-----------<cycle 1>"), parent ? text.find("Out\n") + 4 : 0) << text;
        EXPECT_EQ(text.find("<cycle"), text.rfind("<cycle"));
        EXPECT_CONTAINS(text, "fork.c:1:LK");
    }
    EXPECT_EQ(parents, 1);
}

} // namespace
