// k42mc run
// Releases of addresses that are no block's start, and of blocks whose headers were overwritten: each stops the
// process with a finding that says what the address is.
#include "said_by.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

char in_data[100];
const char in_constants[] = "constant";
int failures = 0;

using Release = void (*)(void *);

void by_free(void *pointer) {
    free(pointer);
}
void by_realloc(void *pointer) {
    static_cast<void>(!realloc(pointer, 10));
}
void by_delete(void *pointer) {
    ::operator delete(pointer);
}

struct Way {
    const char *name;
    const char *arena;
    Release release;
};
constexpr Way ways[] = {
    {"free", "STD", by_free}, {"realloc", "STD", by_realloc}, {"delete", "FIX", by_delete}};

// Expects the line to begin so, and the words behind it, "*" standing for any.
void expect(const std::string &name, const std::function<void()> &action, const std::string &line,
            const std::string &words) {
    int status = 0;
    const std::string said = said_by(action, status);
    const size_t second = said.find("\r\nk42mc: ") + 2;
    const std::string found =
        second > 2 ? said.substr(second + 7, said.find('\n', second) - second - 7) : "";
    const size_t any = std::min(words.find('*'), words.size());
    const bool agrees = any < words.size() ? found.starts_with(words.substr(0, any)) : found == words;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && said.starts_with(line) && agrees)
        return;
    printf("%s: status %d, said:\n%s\nin place of: %s\n%s\n", name.c_str(), status, said.c_str(),
           line.c_str(), words.c_str());
    ++failures;
}

std::string defect_line(const std::string &start, const void *pointer, size_t size) {
    char rest[100];
    snprintf(rest, sizeof rest, " usrPtr(%p) usrSize(%zu) trace buffer:", pointer, size);
    return "k42mc detected " + start + rest;
}

// Of something that lies where it lies in the child, too.
void expect_stray(const void *address, const std::string &what) {
    for (const Way &way : ways) {
        void *const pointer = const_cast<void *>(address);
        const std::string line =
            defect_line(std::string("WU: alloc(UNKNOWN) free(") + way.arena + ")", pointer, 0);
        expect(
            what + ", by " + way.name, [&] { way.release(pointer); }, line + " 0 0 0 0 0\r\n",
            "a release of an address " + what);
    }
}

void expect_near(char *block, size_t size, ptrdiff_t offset, const std::string &what) {
    for (const Way &way : ways)
        expect(
            what + ", by " + way.name, [&] { way.release(block + offset); },
            defect_line(std::string("WU: alloc(STD) free(") + way.arena + ")", block + offset, size) +
                " 0x",
            "a release of an address " + what + ", allocated at attack_run_stray_pointers+0x*");
}

void lies_in_no_block() {
    constexpr size_t hole = 64 << 20; // what is mapped next comes to one of its ends
    auto *const gone =
        static_cast<char *>(mmap(nullptr, hole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) +
        hole / 2;
    munmap(gone - hole / 2, hole);
    for (const char *address :
         {gone, gone + 16, reinterpret_cast<char *>(16), reinterpret_cast<char *>(-16)})
        expect_stray(address, "in no memory");
    expect_stray(in_data + 16, "in the data of attack_run_stray_pointers");
    expect_stray(in_constants, "in the data of attack_run_stray_pointers");
    expect_stray(stdin, "in the data of libc.so.6");
    char variable[16];
    expect_stray(variable, "on the stack of this thread");
    expect_stray(getenv("PATH"), "on the stack of this thread");
}

// The C++ library has operators of its own, which may hand out what they like: libc has to say what it thinks.
void may_be_anothers() {
    int status = 0;
    const std::string said = said_by([] { free(std::cout.rdbuf()); }, status);
    if (said == "free(): invalid pointer\n" && WIFSIGNALED(status))
        return;
    printf("said of what may be another allocator's: %s\n", said.c_str());
    ++failures;
}

// Threads that have allocated, and do not go away: the one that releases is in the child of a fork, where it is
// the only one.
struct Variables {
    char *first, *other;
    std::atomic<bool> ready = false;
    pthread_t thread;
};

[[gnu::noinline]] void *wait_with_variable(void *argument) {
    auto &variables = *static_cast<Variables *>(argument);
    char variable[16] = "";
    char *volatile recorded = strdup("recorded"); // compilers leave out what is freed at once
    free(recorded);
    variables.other = variable;
    variables.ready = true;
    for (;;)
        pause();
}

void start(Variables &variables) {
    if (pthread_create(&variables.thread, nullptr, wait_with_variable, &variables) != 0)
        abort();
    while (!variables.ready)
        usleep(100);
}

// Null for a variable of that thread's own.
void release_in_thread(const Way &way, char *pointer) {
    struct Call {
        const Way &way;
        char *pointer;
    } call{way, pointer};
    const auto run = [](void *argument) -> void * {
        const auto *given = static_cast<Call *>(argument);
        char variable[16];
        given->way.release(given->pointer != nullptr ? given->pointer : variable);
        return nullptr;
    };
    pthread_t thread;
    pthread_create(&thread, nullptr, run, &call);
    pthread_join(thread, nullptr);
}

void lies_on_stacks() {
    for (const Way &way : ways) {
        const auto others = [&] {
            static Variables variables;
            start(variables);
            way.release(variables.other);
        };
        expect(std::string("another's, by ") + way.name, others, "k42mc detected WU: alloc(UNKNOWN) ",
               "a release of an address on the stack of another thread");
        expect(
            std::string("a thread's own, by ") + way.name, [&] { release_in_thread(way, nullptr); },
            "k42mc detected WU: alloc(UNKNOWN) ", "a release of an address on the stack of this thread");
        char variable[16];
        expect(
            std::string("the first's, by ") + way.name, [&] { release_in_thread(way, variable); },
            "k42mc detected WU: alloc(UNKNOWN) ",
            "a release of an address on the stack of another thread");
    }
}

void lies_near_blocks() {
    auto *const block = static_cast<char *>(malloc(100));
    memset(block, 'x', 100);
    for (const int offset : {1, 16, 44, 99})
        expect_near(block, 100, offset,
                    std::to_string(offset) + " byte" + (offset == 1 ? "" : "s") +
                        " inside a block of 100 bytes");
    expect_near(block, 100, 100, "at the end of a block of 100 bytes");
    expect_near(block, 100, 108, "8 bytes past the end of a block of 100 bytes");
    expect_near(block, 100, -1, "1 byte before a block of 100 bytes");
    expect_near(block, 100, -16, "16 bytes before a block of 100 bytes");
    free(block);

    constexpr size_t much = 20 << 20;
    auto *const large = static_cast<char *>(malloc(much));
    expect_near(large, much, much - 3, "20971517 bytes inside a block of 20971520 bytes");
    free(large);
    auto *const aligned = static_cast<char *>(aligned_alloc(4096, 5000));
    expect_near(aligned, 5000, 4096, "4096 bytes inside a block of 5000 bytes");
    free(aligned);
}

// All of a block's header, and what is ahead of it, or the header of the next.
void headers_are_overwritten() {
    constexpr size_t header = 8 * sizeof(void *);
    for (const bool twice : {false, true})
        expect(
            "memset before the start",
            [&] {
                void *volatile ahead = malloc(200);
                auto *volatile block = static_cast<char *>(malloc(100));
                const size_t bytes = twice ? 2 * header : header;
                memset(block - bytes, 'A', bytes);
                __asm__ volatile("" : : "r"(block) : "memory"); // the compiler knows what free does
                free(block);
                free(ahead);
            },
            "k42mc detected WU: alloc(UNKNOWN) free(STD) ",
            "a write before the start of a block of 100 bytes, allocated at "
            "attack_run_stray_pointers+0x*");
    for (const bool hit : {false, true}) {
        const auto overrun = [&] {
            char *blocks[50];
            for (char *&block : blocks)
                block = static_cast<char *>(malloc(100));
            for (size_t i = 1; i < std::size(blocks); ++i) {
                // Side by side: what lies between is the first one's tail, and the allocator's.
                if (blocks[i] - blocks[i - 1] <= 0 ||
                    size_t(blocks[i] - blocks[i - 1]) > 100 + 2 * header + 32)
                    continue;
                memset(blocks[i - 1] + 100, 'A', header + 32);
                free(blocks[hit ? i : i - 1]);
            }
        };
        expect("overrun into the next header", overrun,
               hit ? "k42mc detected WU: alloc(UNKNOWN) free(STD) "
                   : "k42mc detected WO: alloc(UNKNOWN) free(STD) ",
               std::string(hit ? "a write before the start" : "a write past the end") +
                   " of a block of 100 bytes, allocated at attack_run_stray_pointers+0x*");
    }
}

} // namespace

int main() {
    lies_in_no_block();
    may_be_anothers();
    lies_on_stacks();
    lies_near_blocks();
    headers_are_overwritten();
    return failures != 0;
}
