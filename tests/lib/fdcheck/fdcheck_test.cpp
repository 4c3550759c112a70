// Histories of descriptors against a model, and what is printed of them.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"
#include "random.h"

#include <deque>
#include <map>
#include <regex>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr int table_size = 64;

// What a record should hold.
struct Model {
    uint32_t opens = 0, closes = 0, alarms = 0;
    bool listed = false;
    std::deque<std::pair<std::string, uint32_t>> events{};

    int32_t add(int fd, const std::string &name, uint32_t type) {
        (type == FD_EV_OPEN ? opens : closes) += type <= FD_EV_CLOSE;
        if (alarms)
            return 0;
        listed = true;
        if (!events.empty())
            alarms = (type == FD_EV_CLOSE && events.back().second == FD_EV_CLOSE) ||
                     (fd < 3 && opens + closes > 3);
        if (opens + closes > 10) {
            if (events.empty())
                return 1;
            events.pop_front();
        }
        events.emplace_back(name, type);
        return 0;
    }
};

std::string clock_text(time_t moment) {
    tm t{};
    localtime_r(&moment, &t);
    char text[40];
    snprintf(text, sizeof text, "%d/%d %d:%d:%d", t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
             t.tm_sec);
    return text;
}

// How many descriptors the system says that the process may have open.
rlim_t soft_limit = table_size;

extern "C" int getrlimit64(__rlimit_resource_t resource, rlimit64 *limits) noexcept {
    const int result = prlimit64(0, static_cast<__rlimit_resource>(resource), nullptr, limits);
    if (result == 0 && resource == RLIMIT_NOFILE)
        limits->rlim_cur = soft_limit;
    return result;
}

// Makes the checker start anew, with a table of that many records.
class FD : public testing::Test {
protected:
    static void SetUpTestSuite() {
        FDOpen("to be ready", 0); // later failures of the allocator are the checker's own
    }
    void SetUp() override {
        forget();
        soft_limit = table_size;
        gFDNoBacktrace = 1;
    }
    void TearDown() override { forget(); }

    void forget() {
        for (int fd = 0; gFDITable && fd < table_size; ++fd)
            if (gFDITable[fd].events)
                SLDeinit(&gFDITable[fd].events);
        free(gFDITable);
        gFDITable = nullptr;
        model.clear();
    }

    // Records an event in one of the ways there are; any of them must agree with the model.
    void add(int fd, const char *name, uint32_t type, unsigned way = 0) {
        const int expected = fd < 0 || fd >= table_size || type > FD_EV_WRITE
                                 ? 1
                                 : model[fd].add(fd, std::string(name ? name : "UNKNOWN", 0, 15), type);
        if (way == 1 && type == FD_EV_OPEN)
            FDOpen(name, fd);
        else if (way == 1 && type == FD_EV_CLOSE)
            FDClose(name, fd);
        else
            ASSERT_EQ((way == 2 ? k42mcx_fd_event : FDAddEvent)(name, fd, type), expected);
    }

    void verify() {
        for (auto &[fd, wanted] : model) {
            const FDInfo &info = gFDITable[fd];
            ASSERT_EQ(info.opens, wanted.opens);
            ASSERT_EQ(info.closes, wanted.closes);
            ASSERT_EQ(info.alarms, wanted.alarms);
            ASSERT_EQ(info.events != nullptr, wanted.listed);
            decltype(wanted.events) found;
            for (auto *event = info.events ? (FDEvent *)SLFirst(info.events) : nullptr; event;
                 event = (FDEvent *)SLNext(info.events, event)) {
                found.emplace_back(event->name, event->type);
                ASSERT_EQ(event->frameCount > 0, event->name[0] == 'T');
            }
            ASSERT_EQ(found, wanted.events);
        }
    }

    std::map<int, Model> model;
};

std::string checked(int fd) {
    return captured_stderr([=] { FDCheck(int32_t(K42MC_BE32(fd))); });
}

std::string reported(uint32_t scheme) {
    return captured_stderr([=] { FDReport(K42MC_BE32(scheme)); });
}

TEST_F(FD, HistoriesAgreeWithModel) {
    Random random;
    const std::string hostile(10000, '%');
    for (int round = 0; round < 20; ++round, SetUp()) {
        for (int step = 0; step < 150; ++step) {
            const int fd = (const int[]){-1, 0, 1, 2, 5, 7, table_size - 1, table_size}[random() % 8];
            // Mostly what makes no alarm: that would end the history.
            const uint32_t type = random() % 12 == 0                 ? random() % 5
                                  : model[5].opens > model[5].closes ? 1u
                                                                     : random() % 4;
            gFDNoBacktrace = random() % 2;
            const char *name = gFDNoBacktrace == 0 ? "Traced by one with a long name"
                               : random() % 2      ? hostile.c_str()
                                                   : nullptr;
            errno = 4711;
            ASSERT_NO_FATAL_FAILURE(add(fd, name, type, random() % 3));
            ASSERT_EQ(errno, 4711);
            for (int out : {-1, table_size})
                model.erase(out);
            if (gFDITable) {
                ASSERT_NO_FATAL_FAILURE(verify());
            }
        }
    }
}

TEST_F(FD, TableKeepsTheSizeThatItWasMadeWith) {
    add(table_size - 1, "last", FD_EV_OPEN);
    soft_limit = 2 * table_size;
    add(table_size, "too high", FD_EV_OPEN);
    EXPECT_EQ(checked(table_size), "FDCheck: fd(64) out of range!");
    FDClose("a", table_size - 2);
    errno = 4711;
    for (int fd : {table_size, table_size - 2}) // the system knows neither
        k42mcx_fd_closing("a", fd);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(gFDITable[table_size - 2].alarms, 1u);
    forget();
    EXPECT_EQ(FDAddEvent("now there", table_size, FD_EV_OPEN), 0);
    SLDeinit(&gFDITable[table_size].events);

    EXPECT_EQ(FDAddEvent("not there", 2 * table_size, FD_EV_OPEN), 1);
}

TEST_F(FD, TableFitsAnyLimit) {
    constexpr int most = 1 << 20;
    for (const auto &[limit, records] :
         {std::pair<rlim_t, int>{20, 20}, {most + 1, most}, {1u << 30, most}, {RLIM_INFINITY, most}}) {
        soft_limit = limit;
        EXPECT_EQ(FDAddEvent("a", records, FD_EV_OPEN), 1);
        EXPECT_EQ(gFDITable, nullptr);
        EXPECT_EQ(FDAddEvent("a", records - 1, FD_EV_OPEN), 0);
        EXPECT_CONTAINS(reported(FD_REPORT_ALL_OPEN), std::to_string(records - 1) + "(a) ");
        SLDeinit(&gFDITable[records - 1].events);
        free(gFDITable);
        gFDITable = nullptr;
    }
}

extern "C" [[gnu::noinline]] void opens_for_the_test() {
    FDOpen("opener", 9);
    errno = 0; // what is done after a call keeps it from being a jump
}

TEST_F(FD, HistoryIsPrintedWhole) {
    EXPECT_EQ(checked(9), "FDCheck: FD Checker Not initialized yet!");
    EXPECT_EQ(reported(FD_REPORT_ALL_USED), "FDReport: FD Checker Not initialized yet!");
    gFDNoBacktrace = 0;
    opens_for_the_test();
    gFDNoBacktrace = 1;
    for (uint32_t type : {FD_EV_READ, FD_EV_WRITE, FD_EV_CLOSE, FD_EV_CLOSE, FD_EV_OPEN})
        FDAddEvent("50% \033[0m", 9, type);
    EXPECT_EQ(checked(3), "FDCheck: fd(3) unknown\n");
    EXPECT_EQ(captured_stderr([] { FDCheck(3); }), "FDCheck: fd(50331648) out of range!");
    EXPECT_EQ(checked(-1), "FDCheck: fd(-1) out of range!");

    const std::string said = checked(9);
    const auto *first = (FDEvent *)SLFirst(gFDITable[9].events);
    const time_t now = time(nullptr);
    EXPECT_TRUE(first->time == clock_text(now) || first->time == clock_text(now - 1));
    const std::string start = "Alarm(s) present! Events history frozen at the first alarm.\n"
                              "Events for fd(9)\n=========\nOPEN by opener at [" +
                              std::string(first->time) + "]\n-----\nBacktrace:\n";
    EXPECT_STARTS(said, start);
    EXPECT_CONTAINS(line_at(said, start.size()), "fdcheck_test(opens_for_the_test+0x");
    std::string rest;
    for (const char *type : {"READ", "WRITE", "CLOSE", "CLOSE"})
        rest += std::string(type) + " by 50% \033[0m at [" +
                ((FDEvent *)SLLast(gFDITable[9].events))->time +
                "]\n-----\nBacktrace:\nNot available\n------\n";
    static char buffer[BUFSIZ];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer); // its text and the stack traces take two ways
    EXPECT_EQ(checked(9), said);
    setvbuf(stderr, nullptr, _IONBF, 0);
    EXPECT_ENDS(said, "------\n" + rest +
                          "Summary for fd(9)\n=========\nAlarms(1), Opens(2), Closes(2)\n"
                          "=================================\n");
}

TEST_F(FD, JsonTellsWhatTheHistoriesHold) {
    const auto json = [] {
        std::string text = captured_stdout([] { EXPECT_EQ(k42mcx_fd_report_json(STDOUT_FILENO), 0); });
        return std::regex_replace(text, std::regex("\"time\":\"[0-9/: ]+\""), "TIME");
    };
    EXPECT_EQ(json(), "");
    EXPECT_EQ(k42mcx_fd_report_json(-1), -1);
    FDOpen("a \"name\"", 2);
    gFDNoBacktrace = 0;
    opens_for_the_test();
    gFDNoBacktrace = 1;
    FDClose("b", 9);
    FDClose("c", 9);
    const std::string text = json();
    EXPECT_STARTS(
        text,
        "{\"format\":1,\"kind\":\"descriptor\",\"descriptor\":2,\"open\":true,\"alarms\":0,\"opens\":1,"
        "\"closes\":0,\"events\":[{\"type\":\"OPEN\",\"operator\":\"a \\\"name\\\"\",TIME,"
        "\"chain\":[]}]}\n{\"format\":1,\"kind\":\"descriptor\",\"descriptor\":9,\"open\":false,"
        "\"alarms\":1,\"opens\":1,\"closes\":2,\"events\":[{\"type\":\"OPEN\","
        "\"operator\":\"opener\",TIME,\"chain\":[\"/");
    EXPECT_ENDS(text,
                "\"]},{\"type\":\"CLOSE\",\"operator\":\"b\",TIME,\"chain\":[]},{\"type\":\"CLOSE\","
                "\"operator\":\"c\",TIME,\"chain\":[]}]}\n");
}

std::string table_text(const char *scheme, const std::string &entries, int count) {
    return std::string("Showing the last operator for ") + scheme + "\n---\n" + entries +
           "\n---\nNumber of fds reported: " + std::to_string(count) + "\n--------------\n";
}

TEST_F(FD, CopiesWhoOpenedWhatIsOpen) {
    FDEvent event = {};
    EXPECT_EQ(k42mcx_fd_opener(9, &event), 0) << "without a table";
    checker_on();
    const uint64_t from = k42mcx_mark();
    FDClose("a", 9);
    EXPECT_EQ(k42mcx_fd_opener(9, &event), 0);
    FDOpen("b", 9);
    gFDNoBacktrace = 0;
    opens_for_the_test();
    gFDNoBacktrace = 1;
    k42mcx_fd_event("d", 9, FD_EV_READ);
    EXPECT_EQ(k42mcx_fd_opener(9, &event), 1);
    EXPECT_STREQ(event.name, "opener");
    EXPECT_GT(event.frameCount, 0u);
    for (int out_of_range : {-1, 1 << 30})
        EXPECT_EQ(k42mcx_fd_opener(out_of_range, &event), 0);
    k42mcx_block block;
    EXPECT_EQ(k42mcx_blocks(from, UINT64_MAX, &block, 1), 1u);
    EXPECT_EQ(block.is_kept, 1) << "the history";
    checker_off();
}

TEST_F(FD, ReportsSelectBySchemes) {
    add(0, "init", FD_EV_OPEN);
    add(5, "worker", FD_EV_OPEN), add(5, "main", FD_EV_CLOSE);
    add(7, "foo", FD_EV_CLOSE), add(7, "foo", FD_EV_CLOSE);
    add(8, "reader", FD_EV_OPEN), add(8, "reader", FD_EV_READ);
    EXPECT_EQ(reported(FD_REPORT_ALL_USED),
              table_text("all used fds", "0(init) -5(main) *7(foo) 8(reader) ", 4));
    EXPECT_EQ(reported(FD_REPORT_MULTIPLE),
              table_text("fds with multiple events", "-5(main) *7(foo) ", 2));
    EXPECT_EQ(reported(FD_REPORT_ALARMING), table_text("fds with alarming events", "7(foo) ", 1));
    EXPECT_EQ(reported(FD_REPORT_ALL_OPEN), table_text("all open fds", "0(init) ", 1));
    EXPECT_EQ(reported(FD_REPORT_ALL_CLOSED), table_text("all closed fds", "5(main) ", 1));
    EXPECT_EQ(reported(5), "FDReport: invalid argument\n");
    EXPECT_EQ(captured_stderr([] { FDReport(1); }), "FDReport: invalid argument\n");
    for (int fd = 10; fd < 15; ++fd)
        add(fd, "x", FD_EV_OPEN);
    EXPECT_EQ(reported(FD_REPORT_ALL_OPEN),
              table_text("all open fds", "0(init) 10(x) 11(x) 12(x) 13(x) 14(x) ", 6));
    EXPECT_EQ(reported(FD_REPORT_ALL_USED),
              table_text("all used fds",
                         "0(init) -5(main) *7(foo) 8(reader) 10(x) 11(x) 12(x) 13(x) \n14(x) ", 9));
    for (int i = 0; i < 4; ++i)
        add(1, "an open that alarms", FD_EV_OPEN);
    EXPECT_EQ(reported(FD_REPORT_ALL_OPEN),
              table_text("all open fds", "0(init) 10(x) 11(x) 12(x) 13(x) 14(x) ", 6));
}

TEST_F(FD, SurvivesFailingAllocations) {
    NEEDS_OWN_MALLOC();
    const auto failing = [](int nth, int fd, uint32_t type) {
        return captured_stderr([=] {
            errno = 0;
            failing_malloc(nth, false, [=] { EXPECT_EQ(FDAddEvent("a", fd, type), 1); });
            EXPECT_EQ(errno, 0);
        });
    };
    EXPECT_EQ(failing(1, 4, FD_EV_OPEN), "FDAddEvent: gFDITable calloc failure!\n");
    EXPECT_EQ(gFDITable, nullptr);
    EXPECT_EQ(failing(2, 4, FD_EV_OPEN), "FDAddEvent: fdi(4) SLInit failure!\n");
    model[4].opens = 1;
    verify();
    EXPECT_EQ(failing(2, 4, FD_EV_OPEN), "FDAddEvent: fdi(4) malloc failure!\n");
    model[4].opens = 2, model[4].listed = true;
    verify();
    EXPECT_EQ(reported(FD_REPORT_ALL_USED),
              table_text("all used fds", "FDReport: fdi(4) empty list!\n", 0));
    for (uint32_t type = 0; type < 4; ++type)
        add(4, "a", type);
    EXPECT_EQ(failing(1, 4, FD_EV_CLOSE), "FDAddEvent: fdi(4) malloc failure!\n"); // no alarm: a write
    model[4].closes = 2;
    verify();
    failing_malloc(1, false, [] {
        EXPECT_EQ(k42mcx_fd_report_json(STDOUT_FILENO), -1);
        EXPECT_EQ(errno, ENOMEM);
    });

    // More opens and closes than a history holds, and nothing in it to replace.
    for (int i = 0; i < 10; ++i)
        failing(1, 6, FD_EV_OPEN);
    const std::string inconsistent = "FDAddEvent: fdi(6) data structures inconsistent!\n";
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(FDAddEvent("a", 6, FD_EV_OPEN), 1); }), inconsistent);
}

// As an allocator or a signal handler of the process does that opens and closes something itself.
TEST_F(FD, LeavesOutWhatHappensWhileItRecords) {
    NEEDS_OWN_MALLOC();
    const Ended end = ended([] {
        alarm(30);
        MallocCalls::during_allocation = [] { FDOpen("inside", 9), k42mcx_fd_closing("inside", 9); };
        FDOpen("outside", 9), FDClose("outside", 9);
        MallocCalls::during_allocation = nullptr;
        _exit(gFDITable[9].opens != 1 || gFDITable[9].closes != 1);
    });
    EXPECT_TRUE(end.exited(0));
}

TEST_F(FD, DoesNothingOnceShutDown) {
    FDOpen("a", 5);
    const Ended end = ended([] {
        FDDeinit();
        FDOpen("a", 5), FDClose("a", 5), FDDeinit();
        FDCheck(int32_t(K42MC_BE32(5))), FDReport(0);
        if (gFDITable || k42mcx_fd_event("a", 5, FD_EV_OPEN) != 1 || gFDITable)
            _exit(1);
        _exit(FDAddEvent("a", 5, FD_EV_OPEN)); // does not look at that
    });
    EXPECT_TRUE(end.exited(0));
    EXPECT_EQ(end.err, "FDCheck: Already deinitialized\nFDReport: Already deinitialized\n");
}

TEST_F(FD, CountsForThreadsBesideTheMemoryChecker) {
    checker_on();
    constexpr int rounds = 500;
    gFDNoBacktrace = 0;
    const std::string said = captured_stderr([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([i] {
                for (int round = 0; round < rounds; ++round) {
                    FDOpen("thread", 5), FDClose("thread", 5);
                    k42mcx_fd_event("thread", 10 + i, uint32_t(round) % 4);
                    k42MC_free("a.c", 2, k42MC_malloc("a.c", 1, 10));
                    if (round % 100 == i)
                        FDReport(0), FDCheck(int32_t(K42MC_BE32(10 + i)));
                }
            });
        for (auto &thread : threads)
            thread.join();
    });
    checker_off();
    EXPECT_EQ(gFDITable[5].opens, 8 * rounds);
    EXPECT_EQ(gFDITable[5].closes, 8 * rounds);
    for (int fd = 10; fd < 18; ++fd)
        EXPECT_EQ(gFDITable[fd].opens + gFDITable[fd].closes, rounds / 2);
    size_t tables = 0;
    for (size_t at = said.find("Showing"); at != said.npos; at = said.find("Showing", at + 1))
        ++tables;
    EXPECT_EQ(tables, 8 * rounds / 100);
}

} // namespace
