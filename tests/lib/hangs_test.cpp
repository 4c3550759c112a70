// Healthy processes that a lock taken in the wrong order, or left behind, would hang. Each runs in a
// child that an alarm ends.
#include "ended.h"

#include <atomic>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <k42mc/k42mc.h>
#include <thread>

namespace {

// Runs action over and over beside threads that do the same, each with one of others.
template <class Action, class... Others> Ended side_by_side(Action action, Others... others) {
    return ended([&] {
        alarm(100);
        std::atomic<bool> done = false;
        const auto until_done = [&](auto other) {
            return std::thread([&done, other] {
                while (!done)
                    other();
            });
        };
        std::thread threads[] = {until_done(others)...};
        for (int round = 0; round < 300; ++round)
            action();
        done = true;
        for (std::thread &thread : threads)
            thread.join();
    });
}

void start(uint32_t file_type = MC_TO_STDERR) {
    MCInit(K42MC_BE32(file_type), 0);
}

template <class Action> void in_a_child(Action action) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(100);
        action();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (status != 0)
        _exit(1);
}

TEST(Hangs, NotInAChildOfAThreadedProcess) {
    // Reports of earlier runs take names that the children would have to try.
    std::filesystem::remove_all(std::filesystem::path(K42MC_REPORT_DIR).parent_path());
    const auto convert_times = [] {
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
    };
    const auto report_in_child = [] {
        start(MC_TO_FILE);
        in_a_child([] { MCReport(0), FDOpen("a", 5); });
        FDClose("a", 5);
    };
    EXPECT_TRUE(side_by_side(report_in_child, convert_times).exited(0));
    const auto log = [] { MCDebugMsg(0, "message\n"); };
    EXPECT_TRUE(side_by_side([&] { log(), in_a_child(log); }, log).exited(0)) << "with the checker off";
}

TEST(Hangs, NotWhenTheCheckerPrintsWhatNobodyAskedFor) {
    static std::atomic<bool> holding;
    const auto hold_standard_error = [] {
        holding = false;
        std::thread([] {
            flockfile(stderr);
            holding = true;
            usleep(100000);
            k42MC_free("a.c", 2, k42MC_malloc("a.c", 1, 10));
            funlockfile(stderr);
        }).detach();
        while (!holding)
            usleep(1000);
    };
    const Ended at_exit = ended([&] {
        alarm(100);
        start();
        hold_standard_error();
    });
    EXPECT_TRUE(at_exit.exited(0));
#ifndef __SANITIZE_THREAD__ // which does not see that a child makes the locks anew
    const Ended first_line_of_a_child = ended([&] {
        start(MC_TO_FILE);
        in_a_child([&] {
            hold_standard_error();
            k42MC_MM_free("a.c", 3, nullptr);
        });
    });
    EXPECT_TRUE(first_line_of_a_child.exited(0));
#endif
}

// Others wait while FDReport prints, on a stream of the process's own that reports its descriptor.
TEST(Hangs, NotInAChildForkedAheadOfTheFirstEvent) {
    const Ended end = ended([] {
        alarm(100);
        static std::atomic<bool> printing = false, printed = false, forked = false;
        const auto write = [](void *, const char *, size_t size) {
            printing = true;
            usleep(100000);
            printed = true;
            return k42mcx_fd_used("write", 5, FD_EV_WRITE, static_cast<ssize_t>(size));
        };
        stderr = fopencookie(nullptr, "w", {nullptr, write, nullptr, nullptr});
        setbuf(stderr, nullptr);
        std::thread reporting([] {
            FDReport(0);
            while (!forked) // The thread sanitizer only lets a child of several threads renew locks.
                usleep(1000);
        });
        while (!printing)
            usleep(1000);
        in_a_child([] { FDOpen("a", 5); });
        const bool waited = printed;
        forked = true;
        reporting.join();
        _exit(!waited || gFDITable != nullptr);
    });
    EXPECT_TRUE(end.exited(0));
}

// fflush(NULL) holds libc's list of streams while it waits for each. A fork wants the list with our locks
// held; a report, ours with standard error held.
TEST(Hangs, NotWhileAllStreamsAreFlushed) {
    const auto flush = [] { fflush(nullptr); };
    const auto report_to_files = [] {
        start(MC_TO_FILE);
        MCReport(0);
        MCDeinit();
    };
    EXPECT_TRUE(side_by_side(report_to_files, flush).exited(0));
    const auto report = [] { MCReport(K42MC_BE32(1)), FDReport(0), MCDebugMsg(0, "message\n"); };
    const auto start_and_fork = [&] { start(), in_a_child(report); };
    EXPECT_TRUE(side_by_side(start_and_fork, flush, report).exited(0));
}

// A constructor of a library runs with the loader's lock held.
TEST(Hangs, NotWhileALibraryIsLoaded) {
    const auto load = [] {
        if (void *module = dlopen(ALLOCATING_MODULE, RTLD_NOW))
            dlclose(module);
        else
            _exit(1);
    };
    const auto record_and_print = [] {
        start();
        k42MC_MM_free("a.c", 3, nullptr);
        FDOpen("a", 5), FDClose("a", 5);
        FDCheck(int32_t(K42MC_BE32(5)));
    };
    EXPECT_TRUE(side_by_side(record_and_print, load).exited(0));
}

TEST(Hangs, NotWhenStandardErrorAllocates) {
    const Ended end = ended([] {
        alarm(100);
        char *text = nullptr;
        size_t size = 0;
        stderr = k42mcx_open_memstream("a.c", 1, &text, &size);
        start();
        MCReport(0);
        k42MC_MM_free("a.c", 3, nullptr);
        FDOpen("a", 5), FDReport(0);
        MCDeinit();
        fclose(stderr);
        fputs(text, stdout);
        k42MC_free("a.c", 2, text);
    });
    EXPECT_NE(end.out.find("<cycle 1>"), std::string::npos);
    EXPECT_NE(end.out.find("a.c:3:NF:0x0:0\nBacktrace of the NULL free:\n------\n"), std::string::npos)
        << end.out;
}

// A release is no cancellation point, whatever it has to print.
TEST(Hangs, NotAfterAThreadWasCancelled) {
    const auto cancelled = [](auto action) {
        std::thread([=] {
            pthread_cancel(pthread_self());
            action();
            pthread_testcancel();
        }).join();
    };
    const Ended end = ended([&] {
        alarm(100);
        start();
        cancelled([] { k42MC_MM_free("a.c", 1, nullptr), MCReport(0), MCDebugMsg(1, "message\n"); });
        MCReport(0);
        MCDebugMsg(0, "message\n");
    });
    EXPECT_TRUE(end.exited(0));
    const Ended defect = ended([&] {
        alarm(100);
        cancelled([] {
            char *volatile block = static_cast<char *>(k42MC_malloc("a.c", 1, 10));
            block[10] = 0;
            k42MC_free("a.c", 1, block);
        });
    });
    EXPECT_TRUE(defect.aborted());
}

// Handlers of the process's own that were there before ours run while ours hold all locks.
TEST(Hangs, NotInForkHandlersOfTheProcess) {
    const Ended end = ended([] {
        alarm(60);
        const auto use_everything = [] {
            k42MC_free("h.c", 1, k42MC_malloc("h.c", 2, 10));
            k42MC_free("h.c", 3, k42MC_realloc("h.c", 4, k42MC_malloc("h.c", 5, 10), 20));
            FDOpen("handler", 5);
            FDClose("handler", 5);
            MCDebugMsg(0, "in a handler\n");
            MCReport(K42MC_BE32(99));
        };
        pthread_atfork(use_everything, use_everything, use_everything);
        MCInit(0, 0);
        int status = 1;
        if (const pid_t child = fork(); child != 0) {
            waitpid(child, &status, 0);
            use_everything();
        } else {
            use_everything();
            status = 0;
        }
        MCReport(0);
        _exit(status);
    });
    EXPECT_TRUE(end.exited(0)) << end.status << end.err;
    EXPECT_CONTAINS(end.err, "LK:");
    EXPECT_FALSE(contains(end.err, "h.c:")) << end.err;
}

} // namespace
