// Released blocks that are kept back: what is found in them, for how long they are kept, and what sets them free.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"
#include "forking_handler.h"
#include "random.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

// What the quarantine keeps back, a leak checker takes for lost.
extern "C" const char *__asan_default_options() {
    return "detect_leaks=0";
}

namespace {

constexpr size_t MiB = 1 << 20;
constexpr size_t guard_bytes = K42MC_GUARD_OVERHEAD / 2;

class Quarantine : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(k42mcx_quarantine(MiB), 0); }
    void TearDown() override { ASSERT_EQ(k42mcx_quarantine(0), 0); }
};

char *allocate(size_t size) {
    return static_cast<char *>(k42MC_malloc("new.c", 1, size));
}

void release(void *block, int line = 2) {
    k42MC_free("old.c", line, block);
}

// Blocks that the compiler does not know to be released.
char *written_to(char *block, ptrdiff_t offset) {
    volatile char *const byte = block + offset;
    *byte = char(*byte ^ 1);
    return block;
}

void release_many(size_t bytes) {
    for (size_t released = 0; released < bytes; released += 1000)
        release(allocate(1000));
}

void end_quarantine() {
    k42mcx_quarantine(0);
}

struct Wrapper {
    const char *name, *arena;
    char *(*allocate)();
    void (*release)(char *);
};

const Wrapper wrappers[] = {
    {"malloc", "STD", [] { return allocate(100); }, [](char *block) { release(block); }},
    {"calloc", "STD", [] { return static_cast<char *>(k42MC_calloc("a.c", 1, 10, 10)); },
     [](char *block) { k42MC_cfree("a.c", 1, block); }},
    {"realloc", "STD", [] { return static_cast<char *>(k42MC_realloc("a.c", 1, allocate(5000), 100)); },
     [](char *block) { static_cast<void>(!k42MC_realloc("a.c", 1, block, 200)); }},
    {"posix_memalign", "STD",
     [] {
         void *block = nullptr;
         EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, 256, 100), 0);
         return static_cast<char *>(block);
     },
     [](char *block) { static_cast<void>(!k42MC_realloc("a.c", 1, block, 0)); }},
    {"new", "FIX", [] { return static_cast<char *>(k42mcx_alloc("a.c", 1, MC_FIX, 1, 100)); },
     [](char *block) { k42mcx_free("a.c", 1, MC_FIX, block); }}};

TEST_F(Quarantine, FindsWritesWhereverTheyAreInABlock) {
    for (const Wrapper &wrapper : wrappers) {
        SCOPED_TRACE(wrapper.name);
        for (const int offset : {0, 1, 50, 99, -1, -int(guard_bytes), 100, 100 + int(guard_bytes) - 1}) {
            char *const block = wrapper.allocate();
            wrapper.release(block);
            char line[300];
            snprintf(line, sizeof line,
                     "WF: alloc(%s) usrPtr(%p) usrSize(100) access(%p%+d) trace buffer: 0x",
                     wrapper.arena, block, block, offset);
            expect_defect(line, [&] {
                written_to(block, offset);
                end_quarantine();
            });
        }
    }
    EXPECT_EQ(k42mcx_quarantine(0), 0) << "nothing was written to, here";
}

TEST_F(Quarantine, SaysWhatWasWrittenAndWho) {
    char *const block = allocate(100);
    release(block, 77);
    const Ended end = ended([&] {
        memcpy(block + 8, "AB", 2);
        block[99] = 0;
        release_many(2 * MiB);
    });
    EXPECT_TRUE(end.aborted());
    const std::string words = "k42mc: a write after the release of a block, 8 bytes inside a block of "
                              "100 bytes, where there is "
                              "0x41 now; released at old.c:77 by thread " +
                              std::to_string(gettid()) + "\nBacktrace of the allocation:\n";
    EXPECT_STARTS(end.err, words);
    EXPECT_CONTAINS(end.err, "------\nBacktrace of the release:\n");
    EXPECT_CONTAINS(end.err, "assertion \"0\" failed");
    EXPECT_TRUE(ended([&] { written_to(block, 9); }).aborted()) << "at exit";
    EXPECT_TRUE(ended([&] { written_to(written_to(block, 9), 9); }).exited(0));
}

TEST_F(Quarantine, FindsSecondReleasesLate) {
    char *const block = allocate(100), *const resized = allocate(5000);
    release(block, 77);
    char *const larger = static_cast<char *>(k42MC_realloc("old.c", 78, resized, 5000 + 5000 / 7));
    std::vector<char *> others;
    for (int i = 0; i < 1000; ++i)
        others.push_back(allocate(100));
    EXPECT_EQ(std::ranges::count(others, block), 0);
    const Ended end = expect_defect("DF: alloc(STD) free(STD)", [&] { release(block); });
    EXPECT_STARTS(end.err, "k42mc: a second release of a block of 100 bytes, already released at "
                           "old.c:77 by thread " +
                               std::to_string(gettid()) + "\n");
    expect_defect("DF: alloc(STD) free(STD)", [&] { release(resized); });
    expect_defect("DF: alloc(STD) free(STD)",
                  [&] { static_cast<void>(!k42MC_realloc("a.c", 1, resized, 7)); });
    std::ranges::for_each(others, [](char *other) { release(other); });
    release(larger);
}

// A small growth of a large block stays in its place, or copying would take all of the time.
TEST_F(Quarantine, MovesWhatIsReallocated) {
    Random random;
    for (size_t size : {size_t{1}, size_t{4000}, size_t{20000}, size_t{300000}}) {
        std::string content(size, '\0');
        for (char &byte : content)
            byte = char(random());
        char *const block = allocate(size);
        memcpy(block, content.data(), size);
        const size_t larger = size + size / 4 + 1;
        char *const moved = static_cast<char *>(k42MC_realloc("a.c", 1, block, larger));
        EXPECT_EQ(bytes(moved, size), content);
        EXPECT_TRUE(moved != block || size >= MiB / 8);
        const size_t lesser = size / 2;
        char *const shrunk = static_cast<char *>(k42MC_realloc("a.c", 1, moved, lesser + 1));
        EXPECT_EQ(bytes(shrunk, lesser), content.substr(0, lesser));
        release(shrunk);
    }
    char *block = allocate(50000);
    const int before = MallocCalls::releases;
    for (size_t size = 50001; size < 50100; ++size)
        block = static_cast<char *>(k42MC_realloc("a.c", 1, block, size));
    EXPECT_EQ(MallocCalls::releases, before) << "nothing was pushed out";
    release(block);
}

// ---- Against a model: what one thread has released leaves in that order ----

struct Model {
    struct Kept {
        void *raw;
        size_t size;
    };
    std::vector<Kept> kept;
    size_t first = 0, bytes = 0, most = 0;
    bool in_order = true;

    void add(void *raw, size_t size) { kept.push_back({raw, size}), bytes += size; }
    bool has(const void *raw) const {
        return std::any_of(kept.begin() + long(first), kept.end(),
                           [&](const Kept &block) { return block.raw == raw; });
    }
    void remove(const void *raw) {
        const auto found = std::find_if(kept.begin() + long(first), kept.end(),
                                        [&](const Kept &block) { return block.raw == raw; });
        if (found == kept.end())
            return;
        in_order &= found == kept.begin() + long(first);
        bytes -= found->size;
        ++first;
    }
};
Model *model = nullptr;

TEST_F(Quarantine, KeepsAsMuchAsItMayInTheOrderOfRelease) {
    NEEDS_OWN_MALLOC();
    Random random;
    Model kept;
    kept.kept.reserve(100000);
    model = &kept;
    MallocCalls::during_release = [](void *raw) { model->remove(raw); };
    size_t limit = MiB;
    std::vector<std::pair<char *, size_t>> live;
    live.reserve(1000);
    for (int step = 0; step < 20000; ++step) {
        if (live.size() < 200 || random() % 2 == 0) {
            const size_t size = random() % 50 == 0 ? random() % (limit / 7) : random() % 400;
            char *const block = allocate(size);
            ASSERT_FALSE(kept.has(block - guard_bytes));
            live.emplace_back(block, size);
            continue;
        }
        std::swap(live[random() % live.size()], live.back());
        const auto [block, size] = live.back();
        live.pop_back();
        const size_t raw_size = size + 2 * guard_bytes;
        if (raw_size <= limit / 8)
            kept.add(block - guard_bytes, raw_size);
        release(block);
        ASSERT_TRUE(kept.in_order);
        ASSERT_LE(kept.bytes, limit);
        if (step % 4000 == 3999) {
            ASSERT_GE(kept.bytes, limit / 2) << step;
            limit = MiB + random() % (2 * MiB);
            ASSERT_EQ(k42mcx_quarantine(limit), 0);
            ASSERT_LE(kept.bytes, limit);
        }
    }
    k42mcx_quarantine(0);
    EXPECT_EQ(kept.bytes, 0u);
    for (const auto &[block, size] : live)
        release(block);
    MallocCalls::during_release = nullptr;
}

TEST_F(Quarantine, MakesRoomWhereAnAllocationFails) {
    NEEDS_OWN_MALLOC();
    void *aligned = nullptr;
    const std::array<void *(*)(), 4> allocations = {
        [] { return k42MC_malloc("a.c", 1, 100); }, [] { return k42MC_calloc("a.c", 1, 1, 100); },
        [] { return k42MC_valloc("a.c", 1, 100); },
        [] { return k42mcx_alloc("a.c", 1, MC_VAR, 1, 100); }};
    for (const auto allocation : allocations) {
        release_many(MiB / 2);
        const int before = MallocCalls::releases;
        void *block = nullptr;
        failing_malloc(1, false, [&] { block = allocation(); });
        EXPECT_NE(block, nullptr);
        EXPECT_GE(MallocCalls::releases, before + 400);
        k42mcx_free("a.c", 1, allocation == allocations.back() ? MC_VAR : MC_STD, block);
        failing_malloc(1, true, [&] {
            errno = 0;
            EXPECT_EQ(allocation(), nullptr);
            EXPECT_EQ(errno, ENOMEM);
        });
    }
    release_many(5000);
    failing_malloc(1, false, [&] { ASSERT_EQ(k42MC_posix_memalign("a.c", 1, &aligned, 64, 9), 0); });
    memset(aligned, 'a', 9);
    failing_malloc(1, true, [&] { EXPECT_EQ(k42MC_realloc("a.c", 1, aligned, 99), nullptr); });
    EXPECT_EQ(bytes(aligned, 9), "aaaaaaaaa");
    release(aligned);
    failing_malloc(1, true, [&] { release_many(5000); }); // where lists cannot grow either
}

TEST_F(Quarantine, KeepsOnlyTheEndsOfLargeBlocks) {
    k42mcx_quarantine(16 * MiB);
    char *const block = allocate(MiB);
    memset(block, 'x', MiB);
    release(block);
    for (const size_t offset : {size_t{0}, size_t{4095}, MiB - 4096, MiB - 1}) {
        EXPECT_EQ(block[offset], char(0xfb));
        EXPECT_TRUE(ended([&] { written_to(block, long(offset)); }).aborted());
    }
    unsigned char resident[2];
    auto *const page = reinterpret_cast<void *>(number(block + MiB / 2) & -4096ul);
    ASSERT_EQ(mincore(page, 2 * 4096, resident), 0);
    EXPECT_EQ((resident[0] | resident[1]) & 1, 0);
    EXPECT_TRUE(ended([&] { written_to(block, MiB / 2); }).exited(0)) << "nobody looks there";

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which lock nothing
    ASSERT_EQ(mlock(page, 4096), 0);                                // such pages are not given back
    char *const locked = allocate(100000);
    mlock(locked, 100000);
    release(locked);
    EXPECT_EQ(locked[50000], char(0xfb));
#endif
}

TEST_F(Quarantine, IsVerified) {
    checker_on();
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42mcx_verify(), 0u); }), "");
    char *const first = allocate(100), *const second = allocate(0);
    release(first, 5);
    release(second, 6);
    const std::string lines = captured_stderr([&] {
        written_to(first, 3);
        written_to(second, 0);
        EXPECT_EQ(k42mcx_verify(), 2u);
        written_to(first, 3);
        written_to(second, 0);
        EXPECT_EQ(k42mcx_verify(), 0u);
    });
    EXPECT_STARTS(lines, "old.c:5:WF:STD:" + address(first) + ":100\nBacktrace of the allocation:\n");
    EXPECT_CONTAINS(lines, "\nold.c:6:WF:STD:" + address(second) + ":0\nBacktrace of the allocation:\n");
    EXPECT_CONTAINS(lines, "------\nBacktrace of the release:\n");
    checker_off();
}

// What was released holds nothing, wherever in a block the pointer was.
TEST_F(Quarantine, HoldsNothing) {
    NEEDS_OWN_MALLOC();
    checker_on();
    captured_stderr([] {
        std::thread([] {
            for (const size_t size : {size_t{4000}, size_t{100000}}) {
                auto *const holder = reinterpret_cast<void **>(allocate(size));
                holder[size / 2 / sizeof(void *)] = allocate(10);
                release(holder);
            }
        }).join();
        EXPECT_EQ(k42mcx_lost(0), 2u);
    });
    checker_off();
}

TEST_F(Quarantine, TakesOverFromThreadsThatEnd) {
    char *block = nullptr;
    std::thread([&] { release(block = allocate(100)); }).join();
    EXPECT_TRUE(ended([&] { written_to(block, 1); }).aborted());
    EXPECT_TRUE(ended([&] {
                    written_to(block, 1);
                    end_quarantine();
                }).aborted());
}

// The child has what other threads had gathered, and goes on without them.
TEST_F(Quarantine, GoesOnInAForkedChild) {
    std::atomic<char *> block = nullptr;
    std::atomic<bool> done = false;
    std::thread other([&] {
        char *const released = allocate(100);
        release(released);
        block = released;
        constexpr int most = 1000;    // so that they do not push out the other's
        for (int i = 0; !done; ++i) { // takes the lock now and then
            if (i < most)
                release(allocate(100));
            usleep(100);
        }
    });
    while (block == nullptr)
        std::this_thread::yield();
    for (int i = 0; i < 50; ++i) {
        char *const mine = allocate(200);
        release(mine);
        ASSERT_TRUE(ended([] { release_many(2 * MiB); }).exited(0));
        ASSERT_TRUE(ended([&] { written_to(mine, 3), release_many(2 * MiB); }).aborted());
    }
    done = true;
    other.join();
}

TEST_F(Quarantine, LetsHandlersFork) {
    const Ended end = ended([] { work_while_handlers_fork([] { release_many(20000); }); });
    EXPECT_TRUE(end.exited(0)) << end.err;
}

// Under the thread sanitizer, too.
TEST_F(Quarantine, ServesThreadsThatReleaseEachOthersBlocks) {
    constexpr int threads = 4;
    std::mutex mutex;
    std::vector<std::pair<char *, char>> exchange;
    std::atomic<int> running = threads;
    const auto work = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 5000; ++i) {
            const size_t size = 1 + random() % 300;
            char *const block = allocate(size);
            memset(block, int(size), size);
            const std::lock_guard lock(mutex);
            exchange.emplace_back(block, char(size));
            if (exchange.size() < 100)
                continue;
            std::swap(exchange[random() % exchange.size()], exchange.back());
            ASSERT_EQ(*exchange.back().first, exchange.back().second);
            release(exchange.back().first);
            exchange.pop_back();
        }
        --running;
    };
    checker_on();
    std::vector<std::thread> all;
    for (unsigned i = 0; i < threads; ++i)
        all.emplace_back(work, i);
    for (int i = 0; running != 0; ++i) {
        EXPECT_EQ(k42mcx_verify(), 0u);
        k42mcx_quarantine(i % 3 == 0 ? 0 : MiB / 2 * size_t(i % 3));
    }
    for (std::thread &thread : all)
        thread.join();
    for (const auto &[block, byte] : exchange)
        release(block);
    checker_off();
}

TEST_F(Quarantine, RefusesWhatIsTooSmallForIt) {
    EXPECT_EQ(k42mcx_quarantine(1), EINVAL);
    EXPECT_EQ(k42mcx_quarantine(65535), EINVAL);
    EXPECT_EQ(k42mcx_quarantine(65536), 0);
    release_many(MiB);
}

// ---- New memory ----

TEST(Fill, FillsWhatIsNew) {
    EXPECT_EQ(k42mcx_fill(-2), EINVAL);
    EXPECT_EQ(k42mcx_fill(256), EINVAL);
    ASSERT_EQ(k42mcx_fill(0xcb), 0);
    for (const Wrapper &wrapper : wrappers) {
        char *const block = wrapper.allocate();
        const bool is_zeroed = wrapper.name == std::string("calloc");
        const size_t first = wrapper.name == std::string("realloc") ? 100 : 0; // nothing new
        EXPECT_EQ(bytes(block, 100 - first), std::string(100 - first, is_zeroed ? '\0' : '\xcb'));
        wrapper.release(block);
    }
    for (const size_t quarantine : {size_t{0}, MiB}) {
        k42mcx_quarantine(quarantine);
        char *const block = static_cast<char *>(k42MC_calloc("a.c", 1, 50, 1));
        char *const larger = static_cast<char *>(k42MC_realloc("a.c", 1, block, 120));
        EXPECT_EQ(bytes(larger, 120), std::string(50, '\0') + std::string(70, '\xcb'));
        release(larger);
    }
    k42mcx_quarantine(0);
    ASSERT_EQ(k42mcx_fill(-1), 0);
}

} // namespace
