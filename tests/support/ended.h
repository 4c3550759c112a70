// Runs an action in a child process of its own and tells how that ended.
#pragma once

#include "capture.h"

#include <csignal>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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
