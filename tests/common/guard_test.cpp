// Guarded blocks: their exact layout, and every way in which one can be found damaged.
#include "checker.h"
#include "ended.h"

#include <array>
#include <cstring>
#include <k42mc/guard.h>
#include <random>
#include <sys/mman.h>

namespace {

constexpr size_t W = sizeof(void *);
constexpr size_t guard_bytes = 8 * W;
constexpr int log2_shift = 8 * W - 5;

uintptr_t word(const char *at, size_t index) {
    uintptr_t value;
    memcpy(&value, at + index * W, W);
    return value;
}

void set_word(char *at, size_t index, uintptr_t value) {
    memcpy(at + index * W, &value, W);
}

// The words that a pattern's first 28 bytes stand for.
std::string words(const unsigned char *pattern, size_t count = 7) {
    return (bytes(pattern, 28) + bytes(pattern, 28)).substr(0, count * W);
}

// A block in memory of the test's own.
struct Block {
    explicit Block(size_t n, size_t alignment = 1, size_t skew = 0)
        : raw(memory.data() + skew), raw_size(n + 2 * guard_bytes + alignment - 1) {
        user = (char *)k42mc_guard_alloc(K42MC_ARENA_STD, uint32_t(alignment), raw, raw_size);
        header = user - guard_bytes;
        tail = user + n;
        memset(user, 'u', n);
    }

    void free() { EXPECT_EQ(k42mc_guard_free(K42MC_ARENA_STD, user), raw); }

    alignas(4096) std::array<char, 3 * 4096> memory{};
    char *raw, *user, *header, *tail;
    size_t raw_size;
};

TEST(Guard, LaysOutAndMarksEveryWord) {
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        const size_t log2 = random() % 13, alignment = size_t{1} << log2, n = random() % 3000;
        Block block(n, alignment, random() % 200);
        const uintptr_t user = number(block.user), raw = number(block.raw);
        ASSERT_EQ(user, (raw + guard_bytes + alignment - 1) / alignment * alignment);
        ASSERT_EQ(bytes(block.header, W), words(k42mc_head_alloc_guard, 1));
        ASSERT_NE(word(block.header, 1), 0u) << "a trace";
        ASSERT_EQ(word(block.header, 6), (uintptr_t{log2} << log2_shift) + (user - guard_bytes - raw));
        ASSERT_EQ(word(block.header, 7), block.raw_size);
        ASSERT_EQ(bytes(block.tail, 7 * W), words(k42mc_tail_alloc_guard));
        ASSERT_EQ(word(block.tail, 7), K42MC_ARENA_STD);

        errno = 5;
        block.free();
        ASSERT_EQ(errno, 5);
        ASSERT_EQ(bytes(block.header, 7 * W), words(k42mc_free_guard));
        ASSERT_EQ(word(block.header, 7), number(block.tail));
        ASSERT_EQ(bytes(block.tail, 2 * W), words(k42mc_free_guard, 2));
        ASSERT_NE(word(block.tail, 2), 0u) << "a trace";
        ASSERT_EQ(word(block.tail, 7), K42MC_ARENA_STD);
        ASSERT_EQ(bytes(block.user, n), std::string(n, 'u'));
    }
}

// Releases a block into an arena and expects the defect line. The trace in it is that of five words,
// or zeros.
void expect_stop(const char *user, uint32_t arena, const std::string &start, uintptr_t size,
                 const char *trace) {
    char rest[300];
    int length = snprintf(rest, sizeof rest, " usrPtr(%p) usrSize(%zu) trace buffer:", user, size);
    for (size_t i = 0; i < 5; ++i)
        length += snprintf(rest + length, sizeof rest - size_t(length), " %#lx",
                           trace ? (unsigned long)(word(trace, i)) : 0);
    const Ended end = ended([&] {
        printf("buffered before;");
        k42mc_guard_free(arena, const_cast<char *>(user));
    });
    EXPECT_TRUE(end.aborted());
    EXPECT_EQ(end.out, "buffered before;k42mc detected " + start + rest + "\r\n");
    EXPECT_EQ(end.err, "assertion \"0\" failed: file \"common/lib/libk42mc/k42mc_debug\", line 369, "
                       "function \"k42mc_guard_free\"\n");
}

// The most frequent kinds: the block's own header holds the trace, or nothing does.
void expect_stop(const Block &block, const std::string &defect, uintptr_t size) {
    expect_stop(block.user, K42MC_ARENA_STD, defect + ": alloc(UNKNOWN) free(STD)", size,
                block.header + W);
}

void expect_stop_at(const char *user) {
    expect_stop(user, K42MC_ARENA_STD, "WU: alloc(UNKNOWN) free(STD)", 0, nullptr);
}

TEST(Guard, FindsOverruns) {
    for (size_t byte = 0; byte < 7 * W; byte += 5) {
        Block block(100, 16);
        block.tail[byte] ^= 1;
        expect_stop(block, "WO", 100);
    }
}

TEST(Guard, FindsWrongArenas) {
    Block block(31, 1, 3);
    const char *const trace = block.header + W;
    expect_stop(block.user, K42MC_ARENA_SHM, "BF: alloc(STD) free(SHM)", 31, trace);
    expect_stop(block.user, 77, "BF: alloc(STD) free(UNKNOWN)", 31, trace);
    set_word(block.tail, 7, 6);
    expect_stop(block, "BF", 31);
}

TEST(Guard, FindsEveryDamagedHeaderWord) {
    for (const uintptr_t junk : {uintptr_t{0}, ~uintptr_t{0}, uintptr_t{0x41414141}}) {
        for (size_t i = 0; i < 8; ++i) {
            Block block(64, 32);
            set_word(block.header, i, junk);
            const uintptr_t size = junk - 2 * guard_bytes - 31;
            if (i >= 1 && i <= 5)
                block.free();             // a trace is not guarded
            else if (i == 6 && junk == 0) // without its alignment the block seems to be larger
                expect_stop(block, "WO", 64 + 31);
            else // a size that puts the tail below the block is none
                expect_stop(block, "WU",
                            i == 7 && size + number(block.user) > number(block.user) ? size : 0);
        }
    }
    for (const uintptr_t impossible :
         {uintptr_t{28} << log2_shift,               // past the largest alignment
          uintptr_t{31} << log2_shift, uintptr_t{1}, // an offset without alignment
          (uintptr_t{4} << log2_shift) + 16}) {
        Block block(8);
        set_word(block.header, 6, impossible);
        set_word(block.header, 7, block.raw_size + (uintptr_t{1} << (impossible >> log2_shift)) - 1);
        expect_stop(block, "WU", 0);
    }
}

TEST(Guard, FindsDoubleFrees) {
    Block block(40, 8);
    block.free();
    for (const size_t damaged : {0, 6}) { // the next owner of the memory leaves ever less
        for (size_t i = 0; i < damaged; ++i)
            set_word(block.header, i, ~uintptr_t{0});
        expect_stop(block.user, K42MC_ARENA_SHM, "DF: alloc(STD) free(SHM)", 40, block.tail + 2 * W);
    }
    for (const uintptr_t tail :
         {uintptr_t{0}, number(block.user) - 1, ~uintptr_t{0} - 20, ~uintptr_t{0} - 4096 * 4}) {
        set_word(block.header, 7, tail);
        expect_stop(block.user, K42MC_ARENA_STD, "DF: alloc(UNKNOWN) free(STD)", 0, nullptr);
    }
}

// Memory that can be read so far and no further.
char *half_readable(size_t readable) {
    void *pages = mmap(nullptr, 4 * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(pages, readable, PROT_READ | PROT_WRITE);
    return static_cast<char *>(pages);
}

TEST(Guard, StopsAtForeignPointers) {
    const std::array<char, 4 * guard_bytes> zeros{};
    expect_stop_at(zeros.data() + guard_bytes + 1); // unaligned at that
    const char *const hole = half_readable(0), *const half = half_readable(4096), *const null = nullptr;
    for (const char *user : {hole + 128, half + 4096 + 8, null})
        expect_stop_at(user);
}

TEST(Guard, ReportsATailInUnreadableMemory) {
    const size_t n = 300;
    char *const raw = half_readable(4096) + 4096 - n - 2 * guard_bytes;
    const char *user = (char *)k42mc_guard_alloc(K42MC_ARENA_STD, 1, raw, n + 2 * guard_bytes);
    for (const size_t longer : {1, 500, 5000}) {
        set_word(raw, 7, n + 2 * guard_bytes + longer);
        expect_stop(user, K42MC_ARENA_STD, "WU: alloc(UNKNOWN) free(STD)", n + longer, raw + W);
    }
}

TEST(Guard, ReportsToAStreamWithoutADescriptor) {
    Block block(10);
    block.tail[0] ^= 1;
    expect_defect("WO", [&] {
        const auto write_on = [](void *, const char *bytes, size_t size) {
            return write(1, bytes, size);
        };
        stdout = fopencookie(nullptr, "w", {nullptr, write_on, nullptr, nullptr});
        k42mc_guard_free(K42MC_ARENA_STD, block.user);
    });
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
    EXPECT_CONTAINS(end.err, end.out.substr(0, end.out.size() - 2));
}

} // namespace
