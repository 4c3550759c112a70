// k42mc run --quarantine=1M
// A forked child has most of its memory as its parent had it, and what it holds is held by anything there that it has written
// to, whoever has the same memory as well.
#include <csignal>
#include <cstdlib>
#include <functional>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern "C" [[gnu::weak]] int __lsan_do_recoverable_leak_check();

namespace {

constexpr size_t words = 10'000;
void **table; // of the parent's
void *volatile in_data[words];
bool is_well = true;

void expect(bool condition) {
    is_well = is_well && condition;
}

void aside(const std::function<void()> &work) {
    std::thread(work).join();
}

void *allocate() {
    return calloc(4, sizeof(void *));
}

// What former calls have left on the stack.
[[gnu::noinline]] bool finds_leaks() {
    volatile char below[1 << 16];
    for (volatile char &byte : below)
        byte = 0;
    return __lsan_do_recoverable_leak_check() != 0;
}

// A few at a time, so that some lie in memory that the parent has released, and some behind it.
void hold_and_lose() {
    for (size_t i = words / 4; i < words; i += words / 4) {
        aside([i] {
            table[i - 1] = allocate();
            *static_cast<void **>(table[i - 1]) = allocate();
            in_data[i] = allocate();
            *static_cast<void **>(in_data[i]) = allocate();
        });
        expect(!finds_leaks());
    }
    aside([] { static_cast<void *volatile *>(table[words / 4 - 1])[0] = nullptr; });
    expect(finds_leaks());
    aside([] { static_cast<void *volatile *>(table[words / 4 - 1])[0] = allocate(); });
}

int run_child(const std::function<void()> &work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(!is_well);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status;
}

void outlive_child_with_the_same_memory() {
    aside([] { in_data[0] = allocate(); });
    const pid_t other = fork();
    if (other == 0)
        for (;;)
            pause();
    expect(!finds_leaks());
    hold_and_lose();
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
}

} // namespace

int main() {
    if (&__lsan_do_recoverable_leak_check == nullptr)
        return 1;
    table = static_cast<void **>(calloc(words, sizeof(void *)));
    for (size_t i = 0; i < words; ++i)
        table[i] = i % 2 == 0 ? malloc(100) : nullptr;
    for (size_t i = 0; i < words; i += 4)
        free(table[i]);
    for (size_t i = 0; i < words; i += 4)
        table[i] = nullptr;
    expect(run_child(hold_and_lose) == 0);
    expect(run_child(outlive_child_with_the_same_memory) == 0);
    expect(run_child([] { expect(run_child(hold_and_lose) == 0); }) == 0);
    return !is_well;
}
