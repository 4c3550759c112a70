// Processes whose threads the system does not tell apart, or not whether they have ended: sandboxes that keep
// threads' numbers back or refuse to ask for them, and children that no fork handler hears of. Each thread still
// records in a place of its own, and is waited for before that is released.
#include "rounds.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <k42mc/k42mc.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace {

void deny(unsigned call) {
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog whole{4, program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &whole);
}

void allocate(int rounds) {
    void *blocks[16] = {};
    for (int i = 0; i < rounds; ++i)
        for (void *&block : blocks) {
            k42MC_free("a.c", 1, block);
            block = i < rounds - 1 ? k42MC_malloc("a.c", i % 50, static_cast<size_t>(i % 200)) : nullptr;
        }
}

// Whether the last report says that nothing is left.
int counters_balance(int report) {
    char text[4096] = {};
    ftruncate(report, 0);
    MCReport(K42MC_BE32(0x7fffffff));
    pread(report, text, sizeof text - 1, 0);
    return strstr(text, "Since reset: 0 bytes held by 0 allocations") != nullptr ? 0 : 1;
}

int play_sandboxed(unsigned call) {
    const int report = memfd_create("report", 0);
    dup2(report, STDERR_FILENO);
    fcntl(report, F_SETFL, O_APPEND);
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    deny(call);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back(allocate, 5000);
    for (std::thread &thread : threads)
        thread.join();
    return counters_balance(report);
}

// The registry goes and comes while the thread that the child began with records, which others keep from
// the processor again and again.
int play_in_unheard_child() {
    send_stderr("/dev/null");
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    allocate(2);
    const pid_t child = _Fork();
    if (child != 0) {
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&] {
            while (!done) {
            }
        });
    threads.emplace_back([&] {
        for (const time_t end = time(nullptr) + 5; time(nullptr) < end;) {
            MCReport(K42MC_BE32(0x7fffffff));
            MCDeinit();
            MCInit(K42MC_BE32(MC_TO_STDERR), 0);
        }
        done = true;
    });
    while (!done)
        allocate(2);
    for (std::thread &thread : threads)
        thread.join();
    _exit(0);
}

template <class Play> bool passes(const char *name, Play play) {
    const pid_t process = fork();
    if (process == 0)
        _exit(play());
    int status = -1;
    waitpid(process, &status, 0);
    if (status != 0)
        printf("%s: status %#x\n", name, status);
    return status == 0;
}

} // namespace

int main() {
    bool good = passes("no signals to threads", [] { return play_sandboxed(SYS_tgkill); });
    good = passes("no numbers of threads", [] { return play_sandboxed(SYS_gettid); }) && good;
    good = passes("an unheard-of child", play_in_unheard_child) && good;
    return good ? 0 : 1;
}
