// Sixteen threads allocate, resize and release blocks of their own and of each other's, ten million operations in all or as
// many as the argument says, while one more reports, sets filters and forks, and in the first half resets. The counters of the
// second have to balance at the end: before, what is released may have been made ahead of a reset.
#include "balance.h"
#include "capture.h"
#include "traffic.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

constexpr unsigned thread_count = 16;

// A block that any thread may take. It begins with its size, which the rest of it repeats.
using Shared = std::atomic<uint16_t *>;
std::array<Shared, 512> all_shared;

uint16_t *filled(uint16_t *block, size_t count) {
    if (block == nullptr)
        abort();
    for (size_t i = 0; i < count; ++i)
        block[i] = static_cast<uint16_t>(count);
    return block;
}

void verify(const uint16_t *block, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (block[i] != block[0])
            abort();
}

void release(uint16_t *block) {
    if (block != nullptr)
        verify(block, *block);
    k42MC_free("stress.cpp", 3, block);
}

// Takes whatever is there, and leaves another block, the same one in another size, or none.
void exchange(std::mt19937 &random) {
    Shared &place = all_shared[random() % all_shared.size()];
    uint16_t *block = place.exchange(nullptr);
    const size_t count = 1 + random() % 200, size = count * sizeof *block;
    switch (random() % 3) {
    case 0:
        release(block);
        block = filled(static_cast<uint16_t *>(k42MC_malloc("stress.cpp", 1, size)), count);
        break;
    case 1:
        if (block != nullptr) {
            const size_t kept = std::min<size_t>(*block, count);
            block = static_cast<uint16_t *>(k42MC_realloc("stress.cpp", 2, block, size));
            verify(block, kept);
            filled(block, count);
        }
        break;
    default:
        release(block);
        block = nullptr;
    }
    release(place.exchange(block));
}

void set_filter(unsigned number) {
    char line[] = "stress.cpp:1:LK:STD:0x1:1:1";
    number % 5 == 0 ? MCBTFilterReset() : void(MCBTFilterSet(line, static_cast<int>(number % 2)));
}

// Its child looks at what it has, and goes on for a while.
void fork_one(int nowhere) {
    const pid_t child = fork();
    if (child == 0) {
        k42mcx_report_json(nowhere, 0);
        Traffic traffic(1);
        for (int i = 0; i < 1000; ++i)
            traffic.step();
        _exit(0);
    }
    int status = 1;
    waitpid(child, &status, 0);
    if (status != 0)
        abort();
}

void reset() {
    MCInit(0, K42MC_BE32(MC_TYPE_LKBF | MC_TYPE_LK_RESET));
}

void disturb(const std::atomic<bool> &done, bool resets) {
    const int nowhere = open("/dev/null", O_WRONLY);
    for (unsigned number = 0; !done; ++number) {
        k42mcx_report_json(nowhere, number % 4);
        set_filter(number);
        if (resets && number % 7 == 0)
            reset();
        if (number % 11 == 0)
            fork_one(nowhere);
        k42mcx_verify();
    }
    close(nowhere);
}

void work(unsigned seed, long operations) {
    Traffic own(seed);
    std::mt19937 random(seed);
    for (long i = 0; i < operations; ++i)
        random() % 2 == 0 ? own.step() : exchange(random);
}

void run_all(long operations, bool resets) {
    std::atomic<bool> done = false;
    std::thread disturber([&] { disturb(done, resets); });
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < thread_count; ++thread)
        threads.emplace_back(work, thread, operations / thread_count);
    for (std::thread &thread : threads)
        thread.join();
    done = true;
    disturber.join();
    for (Shared &place : all_shared)
        release(place.exchange(nullptr));
}

} // namespace

int main(int argc, char **argv) {
    const long operations = argc > 1 ? atol(argv[1]) : 10'000'000;
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    const std::string said = captured_stderr([&] {
        run_all(operations / 2, true);
        reset();
        run_all(operations / 2, false);
    });
    const std::string report = captured_stderr([] { MCReport(0); });
    fputs(report.c_str(), stderr);
    printf("%zu bytes were said meanwhile\n", said.size());
    MCDeinit();
    return balanced(report) ? 0 : 1;
}
