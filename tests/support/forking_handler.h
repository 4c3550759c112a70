// A signal handler that forks, wherever it strikes. With other threads, libc itself could not do that.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

// Works again and again, until 300 children have ended.
template <class Work> void work_while_handlers_fork(Work work) {
    static std::atomic<int> forks = 0;
    alarm(60);
    signal(SIGPROF, [](int) {
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        int status = -1;
        waitpid(child, &status, 0);
        if (status != 0)
            abort();
        ++forks;
    });
    const itimerval often = {{0, 100}, {0, 100}}, never = {};
    setitimer(ITIMER_PROF, &often, nullptr);
    while (forks < 300)
        work();
    setitimer(ITIMER_PROF, &never, nullptr);
}
