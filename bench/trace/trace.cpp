// Times the walkers at traces of so many frames, along as many paths of calls as so many bits tell
// apart: always the same one with 0. Prints, for each round, a line "walker nanoseconds"; the walkers
// take turns.
//
//   bench_trace <frames> <bits> <rounds>
#include "walkers.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

struct Contestant {
    const char *name;
    Walker walk;
};

constexpr Contestant contestants[] = {{"nothing", walk_nothing},
                                      {"ours", walk_ours},
                                      {"pointers", walk_pointers},
                                      {"backtrace", walk_libc},
                                      {"compiler", walk_compiler}};

struct Run {
    Walker walk;
    int most;
    long count;
    double seconds;
};

void *frames[16];

double now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) + 1e-9 * double(time.tv_nsec);
}

void repeat(Run &run) {
    const double start = now();
    for (long i = 0; i < run.count; ++i)
        run.walk(frames, run.most);
    run.seconds = now() - start;
}

void once(Run &run) {
    run.walk(frames, run.most);
}

using Action = void (*)(Run &);

void left(int depth, uint32_t path, Action action, Run &run);

#define CALLS_FROM_HERE(name, other)                                                                    \
    [[gnu::noinline]] void name(int depth, uint32_t path, Action action, Run &run) {                    \
        if (depth == 0)                                                                                 \
            action(run);                                                                                \
        else if (path & 1)                                                                              \
            other(depth - 1, path >> 1, action, run);                                                   \
        else                                                                                            \
            name(depth - 1, path >> 1, action, run);                                                    \
        __asm__ volatile("");                                                                           \
    }

CALLS_FROM_HERE(right, left)
CALLS_FROM_HERE(left, right)

constexpr int depth = 18;

// As many paths as the number of bits says, in random order.
void along_paths(int bits, Run &run) {
    uint32_t random = 2463534242u;
    const double start = now();
    for (long i = 0; i < run.count; ++i) {
        random ^= random << 13;
        random ^= random >> 17;
        random ^= random << 5;
        left(depth, random >> (32 - bits) << (depth - bits), once, run);
    }
    run.seconds = now() - start;
}

void measure(int most, int path_bits, long count) {
    for (const auto &[name, walk] : contestants) {
        // Those that take a microsecond or more are timed on fewer.
        const bool slow = walk == walk_libc || walk == walk_compiler;
        Run run = {walk, most, slow ? count / 50 : count, 0};
        if (path_bits == 0)
            left(depth, 0x2a5a5, repeat, run);
        else
            along_paths(path_bits, run);
        std::printf("%s %.3f\n", name, 1e9 * run.seconds / double(run.count));
    }
}

} // namespace

int main(int count, char **arguments) {
    set_stack_end(__builtin_frame_address(0));
    if (count < 4)
        return 2;
    const int most = std::atoi(arguments[1]), path_bits = std::atoi(arguments[2]);
    for (long round = std::atol(arguments[3]); round > 0; --round)
        measure(most, path_bits, path_bits == 0 ? 200000 : 100000);
}
