// k42mc run --fail-rate=1/3 --fail-at=(*always_without_memory*+ --fail-not=(*never_without_memory*+
// Allocations fail in a program with threads, exceptions and modules that are loaded late, which has an answer to each.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> is_well = true;
std::atomic<int> failures = 0;

void expect(bool condition) {
    if (!condition)
        is_well = false;
}

// Counts it if it fails, and looks for the cause.
template <class Allocate> void *attempt(Allocate allocate) {
    errno = 0;
    void *const block = allocate();
    if (block == nullptr) {
        ++failures;
        expect(errno == ENOMEM);
    }
    return block;
}

} // namespace

[[gnu::noinline]] void *always_without_memory() {
    void *volatile block = malloc(10);
    return block;
}

[[gnu::noinline]] void *never_without_memory() {
    void *volatile block = malloc(10);
    return block;
}

namespace {

void allocate_in_many_ways() {
    for (int i = 0; i < 1000; ++i) {
        void *block = attempt([] { return malloc(100); });
        if (void *const larger = attempt([&] { return realloc(block, 1000); }))
            block = larger;
        free(block);
        free(attempt([] { return strdup("text"); }));
        void *aligned = nullptr;
        const int failure = posix_memalign(&aligned, 64, 10);
        expect(failure == 0 || failure == ENOMEM);
        free(failure == 0 ? aligned : nullptr);
        try {
            delete new int;
        } catch (const std::bad_alloc &) {
            ++failures;
        }
        delete new (std::nothrow) int;
    }
}

void go_on_without_memory(int threads) {
    std::vector<std::jthread> all;
    for (int i = 0; i < threads; ++i)
        try {
            all.emplace_back(allocate_in_many_ways);
        } catch (const std::exception &) {
            ++failures; // of the thread's state
        }
}

} // namespace

int main() {
    void *const spared = never_without_memory();
    for (int i = 0; i < 100; ++i) {
        expect(always_without_memory() == nullptr);
        void *const another = never_without_memory();
        expect(another != nullptr);
        free(another);
    }
    free(spared);
    try {
        go_on_without_memory(4);
    } catch (const std::bad_alloc &) {
        ++failures; // of the list of threads
    }
    for (int i = 0; i < 100; ++i)
        if (void *const module = dlopen("libm.so.6", RTLD_NOW))
            dlclose(module);
    expect(failures > 100);
    return is_well ? 0 : 1;
}
