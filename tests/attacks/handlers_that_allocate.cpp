// Signal handlers that allocate, from an allocator that they may interrupt, while their thread records, waits
// for a report of another thread, or clears out the sites: nothing hangs, and the counters balance.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t room = 256, count = 1024;
alignas(16) char pool[count][room];
std::atomic<bool> taken[count];
std::atomic<unsigned> next = 0;

void allocate_and_free(int line) {
    k42MC_MM_free("a.c", 1, k42MC_MM_malloc("a.c", line, 10));
}

} // namespace

extern "C" void *MM_malloc(size_t size) {
    for (size_t i = 0; i < count && size <= room; ++i) {
        const unsigned index = next++ % count;
        if (!taken[index].exchange(true))
            return pool[index];
    }
    return nullptr;
}

extern "C" void MM_free(void *block) {
    taken[(static_cast<char *>(block) - pool[0]) / static_cast<ptrdiff_t>(room)] = false;
}

int main() {
    const int report = memfd_create("report", 0);
    dup2(report, STDERR_FILENO);
    fcntl(report, F_SETFL, O_APPEND);
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_SHM));
    signal(SIGALRM, [](int) { allocate_and_free(0); });
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
    std::atomic<bool> done = false;
    std::thread reporter([&] {
        for (; !done; usleep(100))
            MCReport(K42MC_BE32(0x7fffffff));
    });
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    itimerval often{{0, 300}, {0, 300}};
    setitimer(ITIMER_REAL, &often, nullptr);
    for (int i = 0; i < 1'000'000; ++i)
        allocate_and_free(i % 20'000);
    often = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    done = true;
    reporter.join();
    ftruncate(report, 0);
    MCReport(K42MC_BE32(0x7fffffff));
    char text[4096] = {};
    pread(report, text, sizeof text - 1, 0);
    if (strstr(text, "Since reset: 0 bytes held by 0 allocations") != nullptr)
        return 0;
    printf("%s", text);
    return 1;
}
