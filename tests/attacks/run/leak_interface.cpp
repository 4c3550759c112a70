// k42mc run --fds
// A program that is prepared for the compilers' leak checker is answered by the checker.
#include "report_of_process.h"

#include <cstdint>
#include <functional>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>

extern "C" {
[[gnu::weak]] void __lsan_ignore_object(const void *object);
[[gnu::weak]] void __lsan_register_root_region(const void *begin, size_t size);
[[gnu::weak]] void __lsan_unregister_root_region(const void *begin, size_t size);
[[gnu::weak]] void __lsan_enable();
[[gnu::weak]] void __lsan_disable();
[[gnu::weak]] void __lsan_do_leak_check();
[[gnu::weak]] int __lsan_do_recoverable_leak_check();

const char *__lsan_default_suppressions() {
    return "# what is known\nleak:^known_leak$\n  leak:Known::*ak\nno suppression\n";
}

[[gnu::noinline]] void known_leak() {
    [[maybe_unused]] void *volatile block = malloc(1001);
    block = nullptr;
}
}

namespace {

struct Known {
    [[gnu::noinline]] static void leak() {
        [[maybe_unused]] void *volatile block = malloc(1002);
        block = nullptr;
    }
};

void aside(const std::function<void()> &work) {
    std::thread(work).join();
}

void lose(size_t size) {
    [[maybe_unused]] void *volatile block = malloc(size);
    block = nullptr;
}

void leak(size_t size) {
    aside([size] { lose(size); });
}

// What former calls have left on the stack.
[[gnu::noinline]] bool finds_leaks() {
    volatile char below[1 << 16];
    for (volatile char &byte : below)
        byte = 0;
    return __lsan_do_recoverable_leak_check() != 0;
}

// A child's blocks are its own, and no more.
std::string report_of_child(void (*work)()) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        exit(0);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0 ? report_of(child) : "";
}

// How many blocks are lost by the last report.
int losses(const std::string &report) {
    const std::string member = R"("lost":{"blocks":)";
    int sum = 0;
    size_t at = report.rfind(R"("kind":"cycle")");
    while ((at = report.find(member, at)) != std::string::npos) {
        at += member.size();
        sum += std::stoi(report.substr(at));
    }
    return sum;
}

void lose_what_is_known() {
    aside([] {
        known_leak();
        Known::leak();
    });
    aside([] {
        auto *const block = static_cast<char *>(calloc(100, 1));
        __lsan_ignore_object(block + 99);
        __lsan_disable();
        __lsan_disable();
        __lsan_enable();
        lose(200);
        __lsan_enable();
    });
    if (finds_leaks())
        exit(1);
    leak(300);
    if (!finds_leaks())
        exit(2);
}

// Named read-only memory of several processes leads to a block, and then no more.
void name_region() {
    static uintptr_t region;
    aside([] {
        const int file = memfd_create("region", 0);
        void *const block = malloc(100);
        if (pwrite(file, &block, sizeof block, 0) == sizeof block)
            region = ~reinterpret_cast<uintptr_t>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
        close(file);
        __lsan_register_root_region(reinterpret_cast<void *>(~region), 4096);
    });
    if (finds_leaks())
        exit(1);
    __lsan_unregister_root_region(reinterpret_cast<void *>(~region), 4096);
    if (!finds_leaks())
        exit(2);
}

// What is lost later is no leak any more.
void settle() {
    leak(100);
    __lsan_do_leak_check();
    leak(200);
    __lsan_do_leak_check();
}

void settle_not() {
    leak(100);
    finds_leaks();
    leak(200);
}

} // namespace

int main() {
    if (finds_leaks())
        return 5;
    const std::string report = report_of_child(lose_what_is_known);
    const size_t suppressions = report.find(R"({"kind":"suppressions",)");
    if (losses(report) != 3 || suppressions == std::string::npos ||
        report.find(R"({"kind":"suppressions",)", suppressions + 1) != std::string::npos)
        return 1;
    if (losses(report_of_child(name_region)) != 1)
        return 2;
    if (losses(report_of_child(settle)) != 1)
        return 3;
    if (losses(report_of_child(settle_not)) != 2)
        return 4;
    __lsan_do_leak_check(); // which is none of a child's
    return losses(report_of_child(settle)) == 1 ? 0 : 6;
}
