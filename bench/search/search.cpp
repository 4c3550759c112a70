// A search for lost blocks in a process that has many, and many threads:
//
//   search <threads> <blocks> [<MiB>]
//
// The blocks, 16 to 255 bytes large, hang together in lists; each thousandth is lost. All threads but two wait in a
// system call. One reads the clock, again and again: what it misses between two readings, it stood still, or somebody
// else had its processor. The MiB are memory beside the blocks that has been written to and leads nowhere. Prints
// milliseconds: what the search took; the longest gap in it; the longest gap in a time as long without a search.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <k42mc/k42mc.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Node {
    Node *next;
};

constexpr size_t lists = 1000, one_lost_in = 1000;
Node *heads[lists];
sem_t never_posted;
std::atomic<int64_t> longest_gap = 0; // nanoseconds

// Deeper in the stack than anything that lasts, so that no address is left where a search looks.
[[gnu::noinline]] void make_blocks(size_t count) {
    uint32_t random = 1;
    for (size_t i = 0; i < count; ++i) {
        random = random * 1'664'525 + 1'013'904'223;
        auto *const node =
            static_cast<Node *>(k42MC_malloc(__FILE__, __LINE__, 16 + (random >> 16) % 240));
        if (node == nullptr)
            abort();
        node->next = nullptr;
        if (i % one_lost_in != 0) {
            node->next = heads[i % lists];
            heads[i % lists] = node;
        }
    }
}

void read_clock() {
    for (auto last = Clock::now();;) {
        const auto now = Clock::now();
        const int64_t gap = std::chrono::nanoseconds(now - last).count();
        if (gap > longest_gap.load(std::memory_order_relaxed))
            longest_gap.store(gap, std::memory_order_relaxed);
        last = now;
    }
}

double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

double take_gap() {
    return milliseconds(std::chrono::nanoseconds(longest_gap.exchange(0)));
}

void *occupy(size_t bytes) {
    void *const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    return memset(memory, 1, bytes);
}

} // namespace

int main(int count, char **words) {
    if (count < 3)
        return 2;
    const int threads = atoi(words[1]);
    const size_t blocks = strtoul(words[2], nullptr, 10);
    const size_t mebibytes = count > 3 ? strtoul(words[3], nullptr, 10) : 0;
    MCInit(0, K42MC_BE32(MC_TYPE_LKBF));
    make_blocks(blocks);
    if (mebibytes != 0)
        occupy(mebibytes << 20);
    sem_init(&never_posted, 0, 0);
    for (int i = 1; i < threads; ++i)
        std::thread([i] {
            if (i == 1)
                read_clock();
            sem_wait(&never_posted);
        }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    take_gap();
    const auto start = Clock::now();
    const size_t lost = k42mcx_lost(0);
    const auto took = Clock::now() - start;
    const double gap = take_gap();
    std::this_thread::sleep_for(took);
    printf("%.1f %.2f %.2f\n", milliseconds(took), gap, take_gap());
    fprintf(stderr, "%zu lost\n", lost);
    fflush(stdout);
    _Exit(lost * one_lost_in >= blocks - blocks / 10 ? 0 : 1);
}
