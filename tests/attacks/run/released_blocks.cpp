// k42mc run --quarantine 1M --fill
// Uses of released blocks stop the process with a finding; programs that do nothing wrong, whatever else they do with
// blocks, end as they would.
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int failures = 0;

// What the child says on both outputs together, and its end.
std::string said_by(const std::function<void()> &action, int &status) {
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
        exit(0);
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

void expect(const char *name, const std::function<void()> &action, const std::string &line,
            const std::string &words) {
    int status = 0;
    const std::string said = said_by(action, status);
    const bool stopped = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    if (stopped == !line.empty() && said.starts_with(line) && said.find(words) != std::string::npos &&
        (stopped || (status == 0 && said.empty())))
        return;
    printf("%s: status %#x, said:\n%s\n", name, unsigned(status), said.c_str());
    ++failures;
}

void expect_sound(const char *name, const std::function<void()> &action) {
    expect(name, action, "", "");
}

// Compilers know what free does, and leave out what is freed at once.
template <class Block> Block *kept(Block *block) {
    __asm__ volatile("" : "+r"(block) : : "memory");
    return block;
}

void churn(size_t blocks) {
    std::vector<char *> live;
    for (size_t i = 0; i < blocks; ++i) {
        live.push_back(static_cast<char *>(memset(kept(malloc(100)), 'x', 100)));
        if (i % 3 != 0) {
            free(live.front());
            live.front() = live.back();
            live.pop_back();
        }
    }
    for (char *block : live)
        free(block);
}

void uses_are_found() {
    auto *const block = static_cast<char *>(kept(malloc(100)));
    free(block);
    expect(
        "write, then exit", [&] { *kept(block + 8) = 'A'; }, "k42mc detected WF: alloc(STD) usrPtr(0x",
        "k42mc: a write after the release of a block, 8 bytes inside a block of 100 bytes, where there "
        "is "
        "0x41 now; released at attack_run_released_blocks+0x");
    expect(
        "write, then others",
        [&] {
            memset(kept(block), 0, 10);
            churn(100000);
            _exit(0);
        },
        "k42mc detected WF: alloc(STD) usrPtr(0x", "at the start of a block of 100 bytes");
    expect(
        "second release", [&] { churn(1000), free(kept(block)); },
        "k42mc detected DF: alloc(STD) free(STD)",
        "k42mc: a second release of a block of 100 bytes, already released at "
        "attack_run_released_blocks+0x");
    expect(
        "use of what was reallocated",
        [] {
            auto *const old = static_cast<char *>(kept(malloc(100)));
            char *const volatile left = old; // which compilers do not follow
            free(kept(realloc(old, 120)));
            *left = 1;
        },
        "k42mc detected WF: ", "block of 100 bytes");
    expect(
        "a deleted object",
        [] {
            auto *const object = kept(new long(1));
            std::thread([object] { delete object; }).join();
            *kept(object) = 2;
        },
        "k42mc detected WF: alloc(FIX) ", "at the start of a block of ");
    if (static_cast<unsigned char *>(kept(malloc(500)))[499] != 0xcb)
        ++failures;
}

void *late_block = nullptr;

void handle(int) {
    free(kept(malloc(50)));
    free(kept(realloc(malloc(10), 300)));
}

// Handlers that allocate are at home where they interrupt no allocation of libc's: here, only the loop below.
void healthy_programs_end_well() {
    expect_sound("blocks that are released late", [] {
        late_block = malloc(100);
        atexit([] { free(late_block); });
        churn(1000);
    });
    expect_sound("threads and forks", [] {
        std::atomic<bool> done = false;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                while (!done)
                    churn(500);
            });
        for (int i = 0; i < 30; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                churn(5000);
                exit(0);
            }
            int status;
            waitpid(child, &status, 0);
            if (status != 0)
                abort();
        }
        done = true;
        for (std::thread &thread : threads)
            thread.join();
    });
    expect_sound("signals", [] {
        signal(SIGALRM, handle);
        const itimerval often = {{0, 200}, {0, 200}}, never = {};
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < 300; ++i) {
            sigset_t alarms;
            sigemptyset(&alarms);
            sigaddset(&alarms, SIGALRM);
            sigprocmask(SIG_BLOCK, &alarms, nullptr);
            churn(50);
            sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
        }
        setitimer(ITIMER_REAL, &never, nullptr);
    });
    expect_sound("a buffer that grows byte by byte", [] {
        char *buffer = nullptr;
        for (size_t size = 1; size < 200000; ++size) {
            buffer = static_cast<char *>(realloc(buffer, size));
            buffer[size - 1] = char(size);
        }
        for (size_t size = 1; size < 200000; ++size)
            if (buffer[size - 1] != char(size))
                abort();
        free(buffer);
    });
}

} // namespace

int main() {
    uses_are_found();
    healthy_programs_end_well();
    return failures != 0;
}
