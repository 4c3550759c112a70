// Guarded blocks: their exact layout, and every way in which one can be found damaged.
#include "ended.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <k42mc/guard.h>
#include <random>
#include <sys/mman.h>
#include <vector>

namespace {

constexpr size_t W = sizeof(void *);
constexpr size_t guard_bytes = 8 * W;

uintptr_t word(const void *at, int index) {
    uintptr_t value;
    memcpy(&value, static_cast<const char *>(at) + static_cast<size_t>(index) * W, W);
    return value;
}

void set_word(void *at, int index, uintptr_t value) {
    memcpy(static_cast<char *>(at) + static_cast<size_t>(index) * W, &value, W);
}

// The seven words that a pattern's first 28 bytes stand for.
std::string seven_words(const unsigned char *pattern) {
    const std::string once(reinterpret_cast<const char *>(pattern), 28);
    return W == 4 ? once : once + once;
}

std::string bytes(const void *at, size_t size) {
    return {static_cast<const char *>(at), size};
}

// A block in memory of the test's own.
struct Block {
    Block(size_t n, size_t alignment = 1, size_t skew = 0, uint32_t arena = K42MC_ARENA_STD)
        : raw(memory.data() + skew), size(n) {
        raw_size = n + 2 * guard_bytes + alignment - 1;
        user = static_cast<char *>(
            k42mc_guard_alloc(arena, static_cast<uint32_t>(alignment), raw, raw_size));
        header = user - guard_bytes;
        tail = user + n;
        memset(user, 'u', n);
    }

    void free(uint32_t arena = K42MC_ARENA_STD) { EXPECT_EQ(k42mc_guard_free(arena, user), raw); }

    alignas(4096) std::array<char, 3 * 4096> memory{};
    char *raw, *user, *header, *tail;
    size_t size, raw_size;
};

TEST(Guard, LaysOutAndMarksEveryWord) {
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        const size_t log2 = random() % 13;
        const size_t alignment = size_t{1} << log2, n = random() % 3000, skew = random() % 200;
        Block block(n, alignment, skew);
        const auto address = reinterpret_cast<uintptr_t>(block.user);
        const auto raw = reinterpret_cast<uintptr_t>(block.raw);
        ASSERT_EQ(address, (raw + guard_bytes + alignment - 1) / alignment * alignment);
        ASSERT_EQ(bytes(block.header, W), bytes(k42mc_head_alloc_guard, W));
        ASSERT_NE(word(block.header, 1), 0u) << "a trace";
        ASSERT_EQ(word(block.header, 6),
                  (uintptr_t{log2} << (8 * W - 5)) + (address - guard_bytes - raw));
        ASSERT_EQ(word(block.header, 7), block.raw_size);
        ASSERT_EQ(bytes(block.tail, 7 * W), seven_words(k42mc_tail_alloc_guard));
        ASSERT_EQ(word(block.tail, 7), K42MC_ARENA_STD);

        errno = 5;
        block.free();
        ASSERT_EQ(errno, 5);
        ASSERT_EQ(bytes(block.header, 7 * W), seven_words(k42mc_free_guard));
        ASSERT_EQ(word(block.header, 7), reinterpret_cast<uintptr_t>(block.tail));
        ASSERT_EQ(bytes(block.tail, 2 * W), seven_words(k42mc_free_guard).substr(0, 2 * W));
        ASSERT_NE(word(block.tail, 2), 0u) << "a trace";
        ASSERT_EQ(word(block.tail, 7), K42MC_ARENA_STD);
        ASSERT_EQ(bytes(block.user, n), std::string(n, 'u'));
    }
}

// The defect line for a pointer, as it has to be.
std::string line(const char *defect, const char *alloc, const char *free, const void *user,
                 uintptr_t size, const std::array<uintptr_t, 5> &trace) {
    char text[300];
    int length = snprintf(text, sizeof text,
                          "k42mc detected %s: alloc(%s) free(%s) usrPtr(%p) usrSize(%zu) "
                          "trace buffer:",
                          defect, alloc, free, user, static_cast<size_t>(size));
    for (const uintptr_t frame : trace)
        length += snprintf(text + length, sizeof text - static_cast<size_t>(length), " %#lx",
                           static_cast<unsigned long>(frame));
    return std::string(text) + "\r\n";
}

std::array<uintptr_t, 5> trace_at(const void *at, int first_word) {
    std::array<uintptr_t, 5> trace;
    for (int i = 0; i < 5; ++i)
        trace[static_cast<size_t>(i)] = word(at, first_word + i);
    return trace;
}

void expect_stop(const void *user, const std::string &expected, uint32_t arena = K42MC_ARENA_STD) {
    const Ended end = ended([&] {
        printf("buffered before;");
        k42mc_guard_free(arena, const_cast<void *>(user));
    });
    EXPECT_TRUE(end.aborted());
    EXPECT_EQ(end.out, "buffered before;" + expected);
    EXPECT_EQ(end.err, "assertion \"0\" failed: file \"common/lib/libk42mc/k42mc_debug\", line 369, "
                       "function \"k42mc_guard_free\"\n");
}

constexpr std::array<uintptr_t, 5> no_trace{};

TEST(Guard, FindsOverruns) {
    for (size_t byte = 0; byte < 7 * W; byte += 5) {
        Block block(100, 16);
        block.tail[byte] ^= 1;
        expect_stop(block.user,
                    line("WO", "UNKNOWN", "STD", block.user, 100, trace_at(block.header, 1)));
    }
}

TEST(Guard, FindsWrongArenas) {
    Block block(31, 1, 3);
    const auto trace = trace_at(block.header, 1);
    expect_stop(block.user, line("BF", "STD", "SHM", block.user, 31, trace), K42MC_ARENA_SHM);
    expect_stop(block.user, line("BF", "STD", "UNKNOWN", block.user, 31, trace), 77);
    set_word(block.tail, 7, 6);
    expect_stop(block.user, line("BF", "UNKNOWN", "STD", block.user, 31, trace));
}

TEST(Guard, FindsEveryDamagedHeaderWord) {
    const uintptr_t unsized = 0;
    for (const uintptr_t junk : {uintptr_t{0}, ~uintptr_t{0}, uintptr_t{0x41414141}}) {
        for (int i = 0; i < 8; ++i) {
            Block block(64, 32);
            set_word(block.header, i, junk);
            const auto trace = trace_at(block.header, 1);
            if (i >= 1 && i <= 5) {
                block.free(); // a trace is not guarded
            } else if (i == 6 && junk == 0) {
                // Without its alignment the block seems to be larger, and its tail to be missing.
                expect_stop(block.user, line("WO", "UNKNOWN", "STD", block.user, 64 + 31, trace));
            } else if (i == 7) {
                const uintptr_t size = junk - 2 * guard_bytes - 31;
                const uintptr_t tail = reinterpret_cast<uintptr_t>(block.user) + size;
                const bool above = tail > reinterpret_cast<uintptr_t>(block.user);
                expect_stop(block.user,
                            line("WU", "UNKNOWN", "STD", block.user, above ? size : unsized, trace));
            } else {
                expect_stop(block.user, line("WU", "UNKNOWN", "STD", block.user, unsized, trace));
            }
        }
    }
}

TEST(Guard, ChecksTheAlignmentWord) {
    const int shift = static_cast<int>(8 * W - 5);
    const std::vector<uintptr_t> impossible = {uintptr_t{28} << shift, // past the largest alignment
                                               uintptr_t{31} << shift,
                                               uintptr_t{1}, // an offset without alignment
                                               (uintptr_t{4} << shift) + 16};
    for (const uintptr_t alignment_word : impossible) {
        Block block(8);
        set_word(block.header, 6, alignment_word);
        expect_stop(block.user, line("WU", "UNKNOWN", "STD", block.user, 0, trace_at(block.header, 1)));
    }
}

TEST(Guard, FindsDoubleFrees) {
    Block block(40, 8);
    block.free();
    const auto trace = trace_at(block.tail, 2);
    const std::string expected = line("DF", "STD", "SHM", block.user, 40, trace);
    expect_stop(block.user, expected, K42MC_ARENA_SHM);
    for (int i = 0; i < 6; ++i) // the next owner of the memory leaves ever less
        set_word(block.header, i, ~uintptr_t{0});
    expect_stop(block.user, expected, K42MC_ARENA_SHM);

    for (const uintptr_t tail : {uintptr_t{0}, reinterpret_cast<uintptr_t>(block.user) - 1,
                                 ~uintptr_t{0} - 20, ~uintptr_t{0} - 4096 * 4}) {
        set_word(block.header, 7, tail);
        expect_stop(block.user, line("DF", "UNKNOWN", "STD", block.user, 0, no_trace));
    }
}

TEST(Guard, StopsAtForeignPointers) {
    std::array<char, 4 * guard_bytes> zeros{};
    expect_stop(zeros.data() + guard_bytes + 1, // unaligned at that
                line("WU", "UNKNOWN", "STD", zeros.data() + guard_bytes + 1, 0, no_trace));
    expect_stop(nullptr, line("WU", "UNKNOWN", "STD", nullptr, 0, no_trace));
    void *hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char *behind = static_cast<char *>(hole) + 4096 + 8;
    char *inside = static_cast<char *>(hole) + 128;
    expect_stop(inside, line("WU", "UNKNOWN", "STD", inside, 0, no_trace));
    expect_stop(behind, line("WU", "UNKNOWN", "STD", behind, 0, no_trace));
}

TEST(Guard, ReportsATailInUnreadableMemory) {
    char *pages = static_cast<char *>(
        mmap(nullptr, 4 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + 4096, 3 * 4096, PROT_NONE);
    const size_t n = 300;
    char *raw = pages + 4096 - n - 2 * guard_bytes;
    void *user = k42mc_guard_alloc(K42MC_ARENA_STD, 1, raw, n + 2 * guard_bytes);
    char *header = static_cast<char *>(user) - guard_bytes;
    for (const size_t longer : {size_t{1}, size_t{500}, size_t{5000}}) {
        set_word(header, 7, n + 2 * guard_bytes + longer);
        expect_stop(user, line("WU", "UNKNOWN", "STD", user, n + longer, trace_at(header, 1)));
    }
}

TEST(Guard, KeepsTheTextOfTheReport) {
    Block block(10);
    block.tail[0] ^= 1;
    const Ended end = ended([&] {
        signal(SIGABRT, [](int) {
            fputs(k42mc_panic_string, stderr);
            _exit(3);
        });
        k42mc_guard_free(K42MC_ARENA_STD, block.user);
    });
    EXPECT_TRUE(end.exited(3));
    EXPECT_NE(end.err.find(end.out.substr(0, end.out.size() - 2)), std::string::npos) << end.err;
}

} // namespace
