// What the checkers print on standard error: in order with what the process prints there, without waiting for
// whoever holds the stream, and without harm from what stands behind its descriptor.
#include "checker.h"
#include "ended.h"

#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/resource.h>
#include <thread>

namespace {

// As a process does that logs through a buffer.
void buffer_standard_error() {
    static char buffer[4096];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
}

TEST(StandardError, HasWhatWasPrintedFirstFirst) {
    const Ended end = ended([] {
        MCInit(0, K42MC_BE32(MC_TYPE_BT_OFF));
        buffer_standard_error();
        fputs("1\n", stderr);
        k42MC_MM_malloc("a.c", 1, 7); // there is no memory manager
        fputs("2\n", stderr);
        FDOpen("a", 5);
        gFDITable[5].opens = 20; // so that the oldest event is to be used again, and there is none
        free(SLRemoveFirst(gFDITable[5].events));
        FDOpen("a", 5);
        fputs("3\n", stderr);
        MCCheck(K42MC_BE_ADDR(uintptr_t{0xabc}));
        fputs("4\n", stderr);
        MCReport(K42MC_BE32(2));
        fputs("5\n", stderr);
        fflush(stderr);
        MCDeinit();
    });
    const size_t start = end.err.find("1\na.c:1:NA:");
    ASSERT_NE(start, std::string::npos) << end.err;
    const std::string text = end.err.substr(end.err.find('\n', start + 2) + 1);
    EXPECT_STARTS(
        text, "2\nFDAddEvent: fdi(5) data structures inconsistent!\n3\nAllocation 0xABC not known\n4\n"
              "-----------<cycle 1>");
    EXPECT_ENDS(text, "}\n5\n========== MCDeinit: Done ==========\n");
}

TEST(StandardError, HasTheCheckersOwnLinesInTheirOrder) {
    const Ended end = ended([] {
        MCInit(0, K42MC_BE32(MC_TYPE_BT_OFF));
        buffer_standard_error();
        fputs("first\n", stderr);
        for (int i = 0; i < 200; ++i)
            k42MC_malloc("a.c", 1, 1);
        MCReport(K42MC_BE32(1));
        _exit(0);
    });
    const size_t first = end.err.find(
        "first\nMCReport: Too many reports for terminal: switching to file\nMC: Reporting to \"");
    EXPECT_NE(first, std::string::npos) << end.err;
}

// A thread that holds standard error waits for one that is inside the checker.
template <class Action> bool returns_while_standard_error_is_held(Action action) {
    return ended([&] {
               alarm(100);
               flockfile(stderr);
               std::thread(action).join();
               funlockfile(stderr);
               _exit(0);
           })
        .exited(0);
}

TEST(StandardError, IsNotWaitedFor) {
    EXPECT_TRUE(returns_while_standard_error_is_held([] {
        MCInit(K42MC_BE32(MC_TO_FILE), 0);
        char filter[] = "a.c:1:LK:STD:0:5";
        MCBTFilterSet(filter, 0);
        MCBTFilterReset();
        k42MC_free("a.c", 2, k42MC_malloc("a.c", 1, 5));
        MCReport(0);
        k42mcx_verify();
        MCDeinit();
    }));
    EXPECT_TRUE(returns_while_standard_error_is_held([] {
        MCInit(0, 0);
        MCReport(0);
        MCCheck(K42MC_BE_ADDR(uintptr_t{1}));
        FDOpen("a", 5);
        FDReport(0);
        k42MC_MM_free("a.c", 3, nullptr);
        if (fork() == 0)
            _exit(0);
        MCDebugMsg(1, "message\n");
        MCDeinit();
    }));
}

int set_pipe_as_standard_error(int flags) {
    int ends[2];
    if (pipe2(ends, flags) != 0)
        _exit(2);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    return ends[0];
}

// A program that has made its end of a pipe not block, and a reader that is slow.
TEST(StandardError, IsWaitedForWhereItsDescriptorDoesNotBlock) {
    const Ended end = ended([] {
        alarm(60);
        const int reader = set_pipe_as_standard_error(O_NONBLOCK);
        fcntl(reader, F_SETPIPE_SZ, 4096);
        size_t cycles = 0;
        std::thread reading([&] {
            std::string text;
            char piece[512];
            for (;;) {
                pollfd ready{reader, POLLIN, 0};
                poll(&ready, 1, -1);
                const ssize_t size = read(reader, piece, sizeof piece);
                if (size <= 0)
                    break;
                text.append(piece, static_cast<size_t>(size));
                usleep(500);
            }
            for (size_t at = 0; (at = text.find("<cycle ", at)) != std::string::npos; ++at)
                ++cycles;
        });
        MCInit(0, 0);
        for (int i = 0; i < 41; ++i)
            MCReport(0);
        close(STDERR_FILENO);
        reading.join();
        _exit(cycles == 41 ? 0 : 1);
    });
    EXPECT_TRUE(end.exited(0));
}

// The signals' default is to end the process, or to stop it.
TEST(StandardError, RaisesNoSignal) {
    const Ended pipe_without_readers = ended([] {
        close(set_pipe_as_standard_error(0));
        MCInit(0, 0);
        MCReport(0);
        MCDebugMsg(1, "message\n");
        sigset_t pending;
        sigpending(&pending);
        _exit(sigismember(&pending, SIGPIPE));
    });
    EXPECT_TRUE(pipe_without_readers.exited(0));

    const Ended small_files = ended([] {
        const rlimit limit = {100, 100};
        setrlimit(RLIMIT_FSIZE, &limit);
        MCInit(K42MC_BE32(MC_TO_FILE), 0);
        for (int i = 0; i < 3; ++i)
            MCReport(0);
        MCDeinit();
        _exit(0);
    });
    EXPECT_TRUE(small_files.exited(0));
}

// What the process has blocked and what it is still owed stay as they are.
TEST(StandardError, LeavesTheProcessesSignalsAlone) {
    const Ended end = ended([] {
        sigset_t blocked, now;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGPIPE);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        raise(SIGPIPE);
        close(set_pipe_as_standard_error(0));
        MCInit(0, 0);
        sigpending(&now);
        const bool still_pending = sigismember(&now, SIGPIPE) == 1;
        sigprocmask(SIG_SETMASK, nullptr, &now);
        const bool same_mask = sigismember(&now, SIGPIPE) == 1 && sigismember(&now, SIGXFSZ) == 0 &&
                               sigismember(&now, SIGTTOU) == 0;
        _exit(still_pending && same_mask ? 0 : 1);
    });
    EXPECT_TRUE(end.exited(0));
}

} // namespace
