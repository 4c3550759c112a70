// What a child process says.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

// On both outputs together, and its end: by the action, else by `end` with status 0.
inline std::string said_by(const std::function<void()> &action, int &status, void (*end)(int) = _exit) {
    int output[2];
    if (pipe(output) != 0)
        abort();
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output[1], STDOUT_FILENO);
        dup2(output[1], STDERR_FILENO);
        close(output[0]);
        close(output[1]);
        action();
        end(0);
    }
    close(output[1]);
    std::string said;
    char piece[1000];
    for (ssize_t got; (got = read(output[0], piece, sizeof piece)) > 0;)
        said.append(piece, size_t(got));
    close(output[0]);
    waitpid(child, &status, 0);
    return said;
}
