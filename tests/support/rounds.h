// Random rounds, each in a process of its own with a time limit. They are told apart by their seeds.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

inline void send_stderr(const char *path) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, STDERR_FILENO);
    close(file);
}

// For main. Arguments: how many rounds, and the seed of the first. The process of a round returns from main
// with what play(seed) returns. Between rounds examine(seed) looks at what one has left behind.
template <class Play, class Examine>
int run_rounds(int argc, char **argv, int rounds, Play play, Examine examine) {
    constexpr unsigned seconds = 60;
    if (argc > 1)
        rounds = atoi(argv[1]);
    unsigned seed =
        argc > 2 ? static_cast<unsigned>(strtoul(argv[2], nullptr, 10)) : std::random_device()();
    for (int done = 0; done < rounds; ++done, ++seed) {
        const pid_t process = fork();
        if (process == 0) {
            alarm(seconds);
            return play(seed);
        }
        int status = -1;
        waitpid(process, &status, 0);
        if (status != 0 || !examine(seed)) {
            printf("status %#x after %d rounds; repeat it with the arguments 1 %u\n", status, done,
                   seed);
            return 1;
        }
    }
    printf("%d rounds came to their ends, up to seed %u\n", rounds, seed - 1);
    return 0;
}
