// Reports as JSON, at exit, into a folder of the process's own, and on a signal.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <regex>
#include <sys/syscall.h>

static bool writes_little; // at a time, and is interrupted before each

extern "C" ssize_t write(int descriptor, const void *bytes, size_t size) {
    static unsigned calls;
    if (writes_little && ++calls % 2 == 0) {
        errno = EINTR;
        return -1;
    }
    return syscall(SYS_write, descriptor, bytes, writes_little ? std::min<size_t>(size, 7) : size);
}

// The memory manager, without which there are no blocks of its type.
extern "C" void *MM_malloc(size_t size) {
    return malloc(size);
}

extern "C" void MM_free(void *block) {
    free(block);
}

namespace {

namespace fs = std::filesystem;

using JsonReport = WithChecker;

// Waits until the process has reported that often. Cycles are counted past the interface, in the JSON.
void wait_for_cycle(unsigned wanted) {
    const std::string text = "\"cycle\":" + std::to_string(wanted) + ",\"limit\"";
    const int file = memfd_create("cycles", MFD_CLOEXEC);
    for (std::string seen; !contains(seen, text);) {
        usleep(1000);
        ftruncate(file, 0) == 0 ? lseek(file, 0, SEEK_SET) : 0;
        k42mcx_report_json(file, 99);
        seen = contents("/proc/self/fd/" + std::to_string(file));
    }
    close(file);
}

// Ahead of all tests that make the checker hook fork: the thread sanitizer does not see that a child
// makes the locks anew.
#ifdef __SANITIZE_THREAD__ // lets a forked child start no thread
constexpr bool child_reports = false;
#else
constexpr bool child_reports = true;
#endif

TEST(ReportOnSignal, ReportsFromAThreadOfItsOwn) {
    const Ended end = ended([] {
        alarm(60);
        MCInit(0, 0);
        k42mcx_report_on_signal(SIGUSR1, 5);
        k42mcx_report_on_signal(SIGUSR1, 1); // the limit in force
        k42mcx_report_on_signal(SIGUSR2, 9);
        void *block = k42MC_malloc("g.c", 1, 10);
        kill(getpid(), SIGUSR1);
        wait_for_cycle(1);
        kill(getpid(), SIGUSR2);
        wait_for_cycle(2);
        const pid_t child = fork();
        if (child == 0) {
            kill(getpid(), SIGUSR1); // ignored: there is no thread
            if (child_reports) {
                k42mcx_report_on_signal(SIGUSR2, 3);
                kill(getpid(), SIGUSR2);
                wait_for_cycle(3);
            }
            _exit(7);
        }
        int status = 0;
        waitpid(child, &status, 0);
        k42MC_free("g.c", 2, block);
        _exit(status == 7 << 8 ? 0 : 1);
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
    std::string lines;
    for (size_t at = 0; at < end.err.size();) {
        const std::string line = line_at(end.err, at);
        at += line.size() + 1;
        if (contains(line, "<cycle") || contains(line, ":LK:"))
            lines += std::regex_replace(line, std::regex("0x[0-9A-F]+"), "A") + "\n";
    }
    const std::string first_two = "-----------<cycle 1>-----------\ng.c:1:LK:STD:A:10:1\n"
                                  "-----------<cycle 2>-----------\n";
    const char *third = "-----------<cycle 3>-----------\ng.c:1:LK:STD:A:10:3\n";
    EXPECT_EQ(lines, first_two + (child_reports ? third : ""));
}

TEST(ReportOnSignal, StartsAnewInAChildOfWhoeverAskedFirst) {
    const Ended end = ended([] {
        alarm(60);
        k42mcx_report_on_signal(SIGUSR1, 1);
        usleep(
            100'000); // past the thread's start, at which the address sanitizer takes locks that it forks with
        if (child_reports && fork() == 0) {
            MCInit(0, 0);
            k42mcx_report_on_signal(SIGUSR1, 1);
            kill(getpid(), SIGUSR1);
            wait_for_cycle(1);
            _exit(7);
        }
        int status = 0;
        wait(&status);
        _exit(child_reports && status != 7 << 8);
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
}

// What is written, with what differs from run to run replaced.
std::string json(uint32_t limit) {
    std::string text = captured_stdout([&] { EXPECT_EQ(k42mcx_report_json(STDOUT_FILENO, limit), 0); });
    text = std::regex_replace(text, std::regex("\"pid\":\\d+,\"time\":\\d{10},"), "");
    return std::regex_replace(text,
                              std::regex("\"chain\":\\[\"/[^\"]*json_report_test\\+0x[0-9a-f]+\","
                                         "(\"/[^\"]*\\+0x[0-9a-f]+\",?)+\\](,\"cut\":true)?"),
                              "CHAIN");
}

// What a site's line tells behind what it holds.
std::string since_start(const char *allocated, const char *temporary) {
    return std::string(",\"allocations\":{") + allocated + "},\"temporary\":{" + temporary + "}}\n";
}

std::string cycle(const std::string &rest) {
    return "{\"format\":1,\"kind\":\"cycle\",\"program\":\"json_report_test\",\"width\":" +
           std::to_string(8 * sizeof(void *)) + "," + rest + "\n";
}

void *from_one_place(size_t size) {
    return k42MC_malloc("s.c", 1, size);
}

TEST_F(JsonReport, SumsUpBySiteWithoutAging) {
    EXPECT_EQ(json(0),
              cycle("\"cycle\":0,\"limit\":0,\"blocks\":0,\"bytes\":0,\"allocated\":{\"blocks\":0,"
                    "\"bytes\":0},\"freed\":{\"blocks\":0,\"bytes\":0}}") +
                  "{\"kind\":\"end\",\"sites\":0,\"damaged\":0}\n");
    char *volatile blocks[3];
    const std::string text = captured_stderr([&] {
        volatile int count = 3, middle = 1; // unrolled, the loop would be three places
        for (int i = 0; i < count; ++i) {
            blocks[i] = static_cast<char *>(from_one_place(10 + size_t(i)));
            if (i == middle)
                MCReport(K42MC_BE32(99));
        }
    });
    // From here on all lines differ, and a name holds what needs an escape.
    void *odd = k42MC_malloc("z\"\\\n\xc3\xa4\xff.c", 2, 1000);
    blocks[1][11] = char(blocks[1][11] ^ 1);
    k42MC_free("s.c", 3, k42MC_malloc("s.c", 3, 7));
    const std::string counts = "\"blocks\":4,\"bytes\":1033,\"allocated\":{\"blocks\":5,\"bytes\":1040},"
                               "\"freed\":{\"blocks\":1,\"bytes\":7}}";
    const std::string damage = "{\"kind\":\"damage\",\"cycle\":1,\"defect\":\"WO\",\"file\":\"s.c\","
                               "\"line\":1,\"type\":\"STD\","
                               "\"address\":\"" +
                               address(blocks[1]) + "\",\"size\":11,\"cycles\":1,CHAIN}\n";
    const std::string end = ",\"damaged\":1}\n";
    const char *const none = "\"blocks\":0,\"bytes\":0", *const three = "\"blocks\":3,\"bytes\":33",
                      *const one_small = "\"blocks\":1,\"bytes\":7",
                      *const one_large = "\"blocks\":1,\"bytes\":1000";
    const auto nothing_held = [&](const char *file, int line, const char *allocated,
                                  const char *temporary) {
        return std::string("{\"kind\":\"site\",\"cycle\":1,\"file\":\"") + file +
               "\",\"line\":" + std::to_string(line) + ",\"type\":\"STD\",CHAIN," + none +
               ",\"oldest\":0,\"largest\":0" + since_start(allocated, temporary);
    };
    for (int again = 0; again < 2; ++again) {
        writes_little = again == 1;
        EXPECT_EQ(json(0),
                  cycle("\"cycle\":1,\"limit\":0," + counts) +
                      "{\"kind\":\"site\",\"cycle\":1,\"file\":\"z\\\"\\\\\\u000a\xc3\xa4\\ufffd.c\","
                      "\"line\":2,\"type\":\"STD\",CHAIN,\"blocks\":1,\"bytes\":1000,\"oldest\":0,"
                      "\"largest\":1000" +
                      since_start(one_large, none) +
                      "{\"kind\":\"site\",\"cycle\":1,\"file\":\"s.c\",\"line\":1,\"type\":\"STD\","
                      "CHAIN,\"blocks\":3,\"bytes\":33,\"oldest\":1,\"largest\":12" +
                      since_start(three, none) + nothing_held("s.c", 3, one_small, one_small) + damage +
                      "{\"kind\":\"end\",\"sites\":3" + end);
    }
    writes_little = false;
    EXPECT_EQ(json(1),
              cycle("\"cycle\":1,\"limit\":1," + counts) +
                  "{\"kind\":\"site\",\"cycle\":1,\"file\":\"s.c\",\"line\":1,\"type\":\"STD\",CHAIN,"
                  "\"blocks\":2,\"bytes\":21,\"oldest\":1,\"largest\":11" +
                  since_start(three, none) + nothing_held("s.c", 3, one_small, one_small) +
                  nothing_held("z\\\"\\\\\\u000a\xc3\xa4\\ufffd.c", 2, one_large, none) + damage +
                  "{\"kind\":\"end\",\"sites\":3" + end);
    blocks[1][11] = char(blocks[1][11] ^ 1);
    for (char *block : blocks)
        k42MC_free("s.c", 4, block);
    k42MC_free("s.c", 4, odd);
}

TEST_F(JsonReport, CountsBlocksOfAllTypes) {
    std::string sites, others;
    const auto allocate = [](int type, int line, size_t size) {
        return type == MC_SHM ? k42MC_MM_malloc("t.c", line, size)
                              : k42mcx_alloc("t.c", line, type, 1, size);
    };
    const auto release = [](int type, void *block) {
        type == MC_SHM ? k42MC_MM_free("t.c", 9, block) : k42mcx_free("t.c", 9, type, block);
    };
    void *blocks[MC_ALLOCATOR_TYPES];
    for (int type = MC_STD; type < MC_ALLOCATOR_TYPES; ++type) {
        const std::string size = std::to_string(1000 - 100 * type);
        blocks[type] = allocate(type, type, std::stoul(size));
        release(type, allocate(type, 8, 1u << type));
        sites += "{\"kind\":\"site\",\"cycle\":0,\"file\":\"t.c\",\"line\":" + std::to_string(type) +
                 ",\"type\":\"" + gAllocatorType[type] + "\",CHAIN,\"blocks\":1,\"bytes\":" + size +
                 ",\"oldest\":0,\"largest\":" + size +
                 since_start(("\"blocks\":1,\"bytes\":" + size).c_str(), "\"blocks\":0,\"bytes\":0");
        const std::string passed = "\"blocks\":1,\"bytes\":" + std::to_string(1u << type);
        others += std::string("{\"kind\":\"site\",\"cycle\":0,\"file\":\"t.c\",\"line\":8,\"type\":\"") +
                  gAllocatorType[type] + "\",CHAIN,\"blocks\":0,\"bytes\":0,\"oldest\":0,\"largest\":0" +
                  since_start(passed.c_str(), passed.c_str());
    }
    EXPECT_EQ(json(0),
              cycle("\"cycle\":0,\"limit\":0,\"blocks\":5,\"bytes\":4000,\"allocated\":{\"blocks\":10,"
                    "\"bytes\":4031},\"freed\":{\"blocks\":5,\"bytes\":31}}") +
                  sites + others + "{\"kind\":\"end\",\"sites\":10,\"damaged\":0}\n");
    for (int type = MC_STD; type < MC_ALLOCATOR_TYPES; ++type)
        release(type, blocks[type]);
}

[[gnu::noinline]] void *from_below(int calls) {
    void *block = calls == 0 ? k42MC_malloc("deep.c", 1, 10) : from_below(calls - 1);
    asm volatile("" : "+r"(block)); // no tail call
    return block;
}

[[gnu::noinline]] void *from_left(int calls) {
    void *block = from_below(calls);
    asm volatile("" : "+r"(block));
    return block;
}

[[gnu::noinline]] void *from_right(int calls) {
    void *block = from_below(calls);
    asm volatile("" : "+r"(block) : : "memory");
    return block;
}

// Of each site: its blocks and the length of its chain, and whether that is cut.
std::string chains() {
    const std::string text = captured_stdout([] { k42mcx_report_json(STDOUT_FILENO, 0); });
    std::string found;
    for (size_t at = 0; (at = text.find("\"chain\":[", at)) != std::string::npos;) {
        const size_t end = text.find(']', at);
        found += std::to_string(std::count(text.begin() + long(at), text.begin() + long(end), '+')) +
                 (text.compare(end, 13, "],\"cut\":true,") == 0 ? " cut" : "") + " of " +
                 text.substr(text.find("\"blocks\":", end) + 9, 1) + ", ";
        at = end;
    }
    return found;
}

TEST_F(JsonReport, HasTracesAsDeepAsSomebodyAsksFor) {
    for (int frames : {-1, 0, 15, K42MCX_DEEP + 1})
        EXPECT_EQ(k42mcx_depth(frames), EINVAL);
    const auto told = [](int calls) {
        void *(*volatile functions[])(int) = {from_left, from_right, from_left};
        void *blocks[3];
#pragma GCC unroll 1
        for (int i = 0; i < 3; ++i) // from one place
            blocks[i] = functions[i](calls);
        std::string text = chains();
        const std::string trace = check(blocks[0]);
        EXPECT_EQ(std::ranges::count(trace, '\n'), 16 + 3); // the line, the title and the end
        for (void *block : blocks)
            k42MC_free("deep.c", 2, block);
        checker_off(), checker_on();
        return text;
    };
    EXPECT_EQ(told(20), "16 cut of 3, ");
    ASSERT_EQ(k42mcx_depth(21), 0);
    EXPECT_EQ(told(20), "21 cut of 3, ");
    ASSERT_EQ(k42mcx_depth(23), 0); // both calls of one function, if not of one line
    EXPECT_EQ(told(20), "23 cut of 2, 23 cut of 1, ");
    ASSERT_EQ(k42mcx_depth(K42MCX_DEEP), 0);
    EXPECT_EQ(told(80), "64 cut of 3, ");
    const std::string whole = told(20);
    const int length = std::stoi(whole);
    EXPECT_GT(length, 23);
    const auto times = [&](int number) {
        return std::to_string(length) + " of " + std::to_string(number) + ", ";
    };
    EXPECT_EQ(whole, times(2) + times(1));
    ASSERT_EQ(k42mcx_depth(length), 0); // there may be more
    EXPECT_CONTAINS(told(20), std::to_string(length) + " cut of 2, ");
    ASSERT_EQ(k42mcx_depth(16), 0);
    EXPECT_EQ(told(20), "16 cut of 3, ");
}

TEST_F(JsonReport, EscapesWhatIsNoText) {
    const std::pair<const char *, const char *> names[] = {
        {"\x01\x1f ~\x7f", "\\u0001\\u001f ~\x7f"},
        {"\xc1\xbf\xc2\x80\xdf\xbf", "\\ufffd\\ufffd\xc2\x80\xdf\xbf"},
        {"\xe0\x9f\xbf\xe0\xa0\x80", "\\ufffd\\ufffd\\ufffd\xe0\xa0\x80"},
        {"\xed\xa0\x80\xed\x9f\xbf", "\\ufffd\\ufffd\\ufffd\xed\x9f\xbf"},
        {"\xf0\x8f\xbf\xbf\xf0\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd\xf0\x90\x80\x80"},
        {"\xf4\x90\x80\x80\xf4\x8f\xbf\xbf", "\\ufffd\\ufffd\\ufffd\\ufffd\xf4\x8f\xbf\xbf"},
        {"\xf5\x80\xe2\x82", "\\ufffd\\ufffd\\ufffd\\ufffd"},
        {"\xe2\x82"
         "a\xf0\x90\x80"
         "a",
         "\\ufffd\\ufffd"
         "a\\ufffd\\ufffd\\ufffd"
         "a"},
    };
    for (const auto &[name, escaped] : names) {
        void *block = k42MC_malloc(name, 1, 1);
        EXPECT_CONTAINS(json(0), "\"file\":\"" + std::string(escaped) + "\"");
        k42MC_free(name, 1, block);
    }
}

TEST_F(JsonReport, FailsWholeWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    std::vector<char *> blocks;
    for (int line = 0; line < 200; ++line)
        blocks.push_back(static_cast<char *>(k42MC_malloc("s.c", line, 10)));
    blocks[5][10] = char(blocks[5][10] ^ 1);
    int nth = 1;
    const auto report = [&] {
        return captured_stdout([&] {
            failing_malloc(nth, false, [&] {
                errno = 0;
                const int result = k42mcx_report_json(STDOUT_FILENO, 0);
                EXPECT_EQ(result, errno == ENOMEM ? -1 : 0);
            });
        });
    };
    const std::string whole = json(0);
    while (report().empty())
        ++nth;
    EXPECT_GT(nth, 4); // sites and more of them, their slots, damaged blocks
    EXPECT_EQ(json(0), whole);
    blocks[5][10] = char(blocks[5][10] ^ 1);
    for (char *block : blocks)
        k42MC_free("s.c", 200, block);
}

TEST_F(JsonReport, SaysWhyItFailed) {
    errno = 0;
    EXPECT_EQ(k42mcx_report_json(-1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    const int reading = open("/dev/null", O_RDONLY);
    EXPECT_EQ(k42mcx_report_json(reading, 0), -1);
    EXPECT_EQ(errno, EBADF);
    close(reading);
    checker_off();
    const std::string text =
        captured_stderr([] { EXPECT_EQ(k42mcx_report_json(STDOUT_FILENO, 0), -1); });
    EXPECT_EQ(text, "k42mcx_report_json: ERROR: MC not currently initialized\n");
    EXPECT_EQ(k42mcx_report_folder(std::string(PATH_MAX, 'a').c_str()), ENAMETOOLONG);
    EXPECT_EQ(k42mcx_report_on_signal(SIGKILL, 0), EINVAL);
    EXPECT_EQ(k42mcx_report_on_signal(0, 0), EINVAL);
    EXPECT_EQ(k42mcx_report_on_signal(NSIG, 0), EINVAL);
}

// The files in a folder, by name, with the time cut out.
std::map<std::string, std::string> files(const fs::path &folder) {
    std::map<std::string, std::string> found;
    for (const auto &entry : fs::directory_iterator(folder))
        found[std::regex_replace(entry.path().filename().string(), std::regex("\\d{12}"), "T")] =
            contents(entry.path());
    return found;
}

TEST(ExitReport, VerifiesAndWritesJsonIntoAFolderOfItsOwn) {
    const fs::path folder = fs::temp_directory_path() / ("k42mc_json_" + std::to_string(getpid()));
    const Ended end = ended([&] {
        k42mcx_report_folder(folder.c_str());
        k42mcx_at_exit(K42MCX_EXIT_VERIFY | K42MCX_EXIT_JSON);
        MCInit(K42MC_BE32(MC_TO_FILE), 0);
        static volatile char *volatile block; // no leak to a sanitizer
        block = static_cast<char *>(k42MC_malloc("e.c", 1, 10));
        block[10] = 0;
    });
    EXPECT_TRUE(end.exited(0));
    auto found = files(folder);
    EXPECT_EQ(found.size(), 2u);
    const std::string text = found["json_report_test.MC.T.txt"];
    const size_t exit = text.find("==========MC exit==========\ne.c:1:WO:STD:0x");
    EXPECT_NE(exit, std::string::npos) << text;
    EXPECT_LT(exit, text.find("<cycle 1>"));
    EXPECT_CONTAINS(found["json_report_test.MC.T.json"],
                    "{\"kind\":\"site\",\"cycle\":1,\"file\":\"e.c\"");
    EXPECT_ENDS(found["json_report_test.MC.T.json"], "{\"kind\":\"end\",\"sites\":1,\"damaged\":1}\n");
    fs::remove_all(folder);
}

// With standard input closed, the report gets its number.
TEST(ExitReport, NamesItsFilesAlikeWhateverTheirDescriptors) {
    const fs::path folder = fs::temp_directory_path() / ("k42mc_alike_" + std::to_string(getpid()));
    const Ended end = ended([&] {
        close(STDIN_FILENO);
        k42mcx_report_folder(folder.c_str());
        k42mcx_at_exit(K42MCX_EXIT_JSON);
        MCInit(K42MC_BE32(MC_TO_FILE), 0);
        MCDeinit();
        MCInit(K42MC_BE32(MC_TO_FILE), 0); // within the second: the name gets a number
    });
    EXPECT_TRUE(end.exited(0));
    for (const auto &entry : fs::directory_iterator(folder)) {
        fs::path path = entry.path();
        const bool is_last = contains(contents(path.replace_extension(".txt")), "MC exit");
        EXPECT_EQ(fs::exists(path.replace_extension(".json")), is_last) << path;
    }
    fs::remove_all(folder);
}

TEST(ReportFolder, KeepsFilesThatAreThere) {
    const fs::path folder = fs::temp_directory_path() / ("k42mc_kept_" + std::to_string(getpid()));
    const Ended end = ended([&] {
        k42mcx_report_folder((folder.string() + "/").c_str());
        for (int i = 0; i < 20; ++i) { // within a second or two
            MCInit(K42MC_BE32(MC_TO_FILE), 0);
            MCDeinit();
        }
    });
    EXPECT_TRUE(end.exited(0));
    size_t reports = 0;
    for (const auto &entry : fs::directory_iterator(folder)) {
        ++reports;
        EXPECT_STARTS(contents(entry.path()), "==========MC init==========\n");
    }
    EXPECT_EQ(reports, 20u);
    EXPECT_TRUE(files(folder).contains("json_report_test.MC.T-1.txt"));
    fs::remove_all(folder);
}

} // namespace
