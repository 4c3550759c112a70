// Runs an action in a child process of its own and tells how that ended.
#pragma once

#include "capture.h"
#include "text.h"

#include <csignal>
#include <sys/wait.h>

struct Ended {
    std::string out, err;
    int status;

    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    bool exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

// The child exits with status 0, running its exit handlers, when the action returns.
template <class Action> Ended ended(Action action) {
    Ended result{};
    result.err = captured_stderr([&] {
        result.out = captured_stdout([&] {
            const pid_t child = fork();
            if (child == 0) {
                action();
                std::exit(0);
            }
            waitpid(child, &result.status, 0);
        });
    });
    return result;
}

// Expects the action to be stopped for a defect, and a line that starts so.
template <class Action> Ended expect_defect(const std::string &start, Action action) {
    const Ended end = ended(action);
    EXPECT_TRUE(end.aborted());
    EXPECT_STARTS(end.out, "k42mc detected " + start);
    return end;
}
