// The allocation wrappers of both families over underlying allocators that can fail.
#include "ended.h"
#include "failing_malloc.h"
#include "seed.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <k42mc/k42mc.h>
#include <limits>
#include <map>

namespace {

constexpr size_t overhead = K42MC_GUARD_OVERHEAD;

// The memory manager's calls, in order: M C R F and their sizes.
std::string manager_calls;
bool manager_fails = false;

void log_call(char call, size_t size) {
    manager_calls += call + std::to_string(size) + ' ';
}

// One interface over both families, so that a test can run on either.
struct Family {
    const char *name;
    void *(*malloc)(const char *, int, size_t);
    void *(*calloc)(const char *, int, size_t, size_t);
    void *(*realloc)(const char *, int, void *, size_t);
    void (*free)(const char *, int, void *);
};

const Family families[] = {{"STD", k42MC_malloc, k42MC_calloc, k42MC_realloc, k42MC_free},
                           {"SHM", k42MC_MM_malloc, k42MC_MM_calloc, k42MC_MM_realloc, k42MC_MM_free}};

class Wrappers : public testing::TestWithParam<Family> {
protected:
    void SetUp() override {
        manager_fails = false;
        manager_calls.reserve(1 << 20); // nothing is allocated for the log while malloc fails
        MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    }
    void TearDown() override { MCDeinit(); }
};

} // namespace

extern "C" void *MM_malloc(size_t size) {
    log_call('M', size);
    return manager_fails ? nullptr : malloc(size);
}
extern "C" void *MM_calloc(size_t nmemb, size_t size) {
    log_call('C', nmemb * size);
    return manager_fails ? nullptr : calloc(nmemb, size);
}
extern "C" void *MM_realloc(void *ptr, size_t size) {
    log_call('R', size);
    return manager_fails ? nullptr : realloc(ptr, size);
}
extern "C" void MM_free(void *ptr) {
    log_call('F', ptr != nullptr);
    free(ptr);
}

namespace {

// Random operations against a model of every block's contents; each release checks the guards.
TEST_P(Wrappers, KeepContentsOverRandomOperations) {
    const Family &family = GetParam();
    const Seed seed;
    SCOPED_TRACE(seed.text());
    std::mt19937 random(seed.value);
    const auto below = [&random](size_t limit) { return random() % limit; };
    std::map<unsigned char *, std::string> blocks;
    const auto verify = [](unsigned char *p, const std::string &content) {
        ASSERT_TRUE(std::equal(content.begin(), content.end(), p, [](char a, unsigned char b) {
            return static_cast<unsigned char>(a) == b;
        }));
    };
    for (int step = 0; step < 20000; ++step) {
        const size_t size = below(300);
        const auto some = [&] {
            return std::next(blocks.begin(), static_cast<long>(below(blocks.size())));
        };
        std::string content(size, static_cast<char>(below(256)));
        void *p = nullptr;
        const auto keep = [&](void *block, size_t from) {
            memcpy(static_cast<char *>(block) + from, content.data() + from, size - from);
            blocks[static_cast<unsigned char *>(block)] = content;
        };
        switch (blocks.empty() ? 0 : below(5)) {
        case 0:
            keep(family.malloc("a.c", step, size), 0);
            break;
        case 1:
            p = family.calloc("a.c", step, size, 1);
            ASSERT_EQ(std::count(static_cast<char *>(p), static_cast<char *>(p) + size, '\0'),
                      static_cast<long>(size));
            keep(p, 0);
            break;
        case 2: {
            const auto old = some();
            const size_t kept = std::min(old->second.size(), size);
            content.replace(0, kept, old->second, 0, kept);
            p = family.realloc("a.c", step, old->first, size);
            blocks.erase(old);
            if (size == 0)
                ASSERT_EQ(p, nullptr);
            else {
                verify(static_cast<unsigned char *>(p), content.substr(0, kept));
                keep(p, kept);
            }
            break;
        }
        default: {
            const auto old = some();
            verify(old->first, old->second);
            family.free("a.c", step, old->first);
            blocks.erase(old);
        }
        }
    }
    for (const auto &[block, content] : blocks)
        family.free("a.c", 0, block);
    const std::string report = captured_stderr([] { MCReport(K42MC_BE32(0)); });
    EXPECT_NE(report.find("Since reset: 0 bytes held by 0 allocations"), std::string::npos) << report;
}

TEST_P(Wrappers, FailWithoutCallWhenTheSizeOverflows) {
    const Family &family = GetParam();
    constexpr size_t most = std::numeric_limits<size_t>::max();
    volatile size_t huge = most; // hidden from the compiler, which would warn
    const auto before = manager_calls;
    const std::string lines = captured_stderr([&] {
        const int allocations = MallocCalls::allocations;
        for (const size_t short_of : {size_t{0}, overhead - 1}) {
            errno = 0;
            EXPECT_EQ(family.malloc("a.c", 1, huge - short_of), nullptr);
            EXPECT_EQ(errno, ENOMEM);
        }
        EXPECT_EQ(family.calloc("a.c", 2, huge / 2, 3), nullptr);
        EXPECT_EQ(MallocCalls::allocations, allocations);
    });
    const std::string max = std::to_string(most), max_less = std::to_string(most - overhead + 1);
    EXPECT_EQ(lines,
              "a.c:1:NA:0x0:" + max + "\na.c:1:NA:0x0:" + max_less + "\na.c:2:NA:0x0:" + max + "\n");
    EXPECT_EQ(manager_calls, before);

    void *block = family.malloc("a.c", 3, 10);
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(family.realloc("a.c", 4, block, huge), nullptr); }), "");
    EXPECT_EQ(errno, ENOMEM);
    family.free("a.c", 5, block);
}

TEST_P(Wrappers, LeaveABlockAsItWasWhenItCannotGrow) {
    NEEDS_OWN_MALLOC();
    const Family &family = GetParam();
    char *block = static_cast<char *>(family.malloc("a.c", 7, 100));
    strcpy(block, "contents");
    const std::string lines = captured_stderr([&] {
        failing_malloc(1, true, [&] {
            errno = 0;
            EXPECT_EQ(family.realloc("b.c", 8, block, 5000), nullptr);
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_EQ(family.malloc("b.c", 9, 11), nullptr);
            EXPECT_EQ(family.calloc("b.c", 10, 3, 5), nullptr);
            EXPECT_EQ(errno, ENOMEM);
        });
    });
    EXPECT_EQ(lines, "b.c:9:NA:0x0:11\nb.c:10:NA:0x0:15\n");
    EXPECT_STREQ(block, "contents");
    EXPECT_NE(captured_stderr([&] { MCCheck(K42MC_BE_ADDR(block)); }).find("a.c:7:"), std::string::npos);
    family.free("a.c", 8, block);
    EXPECT_EQ(MCCheck(K42MC_BE_ADDR(block)), 1u);
}

TEST_P(Wrappers, ReleaseThroughTheOtherFamilyStopsAfterTheLine) {
    const Family &family = GetParam();
    const Family &wrong = strcmp(family.name, "STD") == 0 ? families[1] : families[0];
    const Ended end = ended([&] { wrong.free("b.c", 2, family.malloc("a.c", 1, 24)); });
    EXPECT_TRUE(end.aborted());
    EXPECT_NE(end.err.find(std::string("b.c:2:BF: WRONG deallocator type for 0x")), std::string::npos);
    EXPECT_NE(
        end.err.find(std::string("; allocType: ") + family.name + ", freeType: " + wrong.name + "\n"),
        std::string::npos);
    EXPECT_EQ(end.out.rfind(
                  std::string("k42mc detected BF: alloc(") + family.name + ") free(" + wrong.name, 0),
              0u);
}

// With the checker on nothing that is passed may make the checker itself fail.
TEST_P(Wrappers, StopAtPointersThatAreNoBlocks) {
    const Family &family = GetParam();
    char plain[300] = "";
    const auto wild = [](uintptr_t address) { return reinterpret_cast<void *>(address); };
    void *const pointers[] = {plain + 150, wild(8), wild(0x1000), wild(~uintptr_t{0} - 100)};
    for (void *pointer : pointers) {
        for (const bool resize : {false, true}) {
            const Ended end = ended([&] {
                if (resize)
                    static_cast<void>(family.realloc("a.c", 1, pointer, 10));
                else
                    family.free("a.c", 1, pointer);
            });
            EXPECT_TRUE(end.aborted());
            EXPECT_EQ(end.out.rfind("k42mc detected WU", 0), 0u) << end.out;
        }
    }
    const Ended twice = ended([&] {
        void *block = family.malloc("a.c", 1, 3000);
        family.free("a.c", 2, block);
        family.free("a.c", 3, block);
    });
    EXPECT_TRUE(twice.aborted());
    EXPECT_EQ(twice.out.rfind("k42mc detected DF", 0), 0u) << twice.out;
    const Ended over = ended([&] {
        auto *block = static_cast<char *>(family.malloc("a.c", 1, 33));
        block[33] = 0;
        static_cast<void>(family.realloc("a.c", 1, block, 70));
    });
    EXPECT_EQ(over.out.rfind("k42mc detected WO", 0), 0u) << over.out;
}

TEST_P(Wrappers, KeepErrnoWhenReleasing) {
    const Family &family = GetParam();
    void *block = family.malloc("a.c", 1, 5);
    void *resized = family.malloc("a.c", 1, 5);
    errno = 42;
    family.free("a.c", 2, block);
    family.free("a.c", 2, nullptr);
    EXPECT_EQ(family.realloc("a.c", 3, resized, 0), nullptr);
    EXPECT_EQ(family.realloc("a.c", 3, nullptr, 0), nullptr);
    EXPECT_EQ(errno, 42);
}

INSTANTIATE_TEST_SUITE_P(Families, Wrappers, testing::ValuesIn(families),
                         [](const auto &instance) { return std::string(instance.param.name); });

using StandardFamily = Wrappers;
INSTANTIATE_TEST_SUITE_P(Alone, StandardFamily, testing::Values(families[0]));

std::string text(size_t size) {
    std::string letters(size, ' ');
    for (size_t i = 0; i < size; ++i)
        letters[i] = static_cast<char>('a' + i % 23);
    return letters;
}

TEST_P(StandardFamily, AlignsAndLosesTheAlignmentWhenResized) {
    for (size_t alignment = sizeof(void *); alignment <= K42MC_ALIGN_MAX; alignment *= 2) {
        void *block = nullptr;
        errno = 42;
        ASSERT_EQ(k42MC_posix_memalign("a.c", 1, &block, alignment, 100), 0);
        EXPECT_EQ(errno, 42);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u);
        const std::string content = text(100);
        memcpy(block, content.data(), 100);
        if (alignment < 4096) {
            for (const size_t size : {200, 90})
                block = k42MC_realloc("a.c", 2, block, size);
            EXPECT_EQ(std::string(static_cast<char *>(block), 90), content.substr(0, 90));
        }
        EXPECT_EQ(MCCheck(K42MC_BE_ADDR(block)), 0u);
        k42MC_cfree("a.c", 3, block);
        EXPECT_EQ(MCCheck(K42MC_BE_ADDR(block)), 1u);
    }
    void *page = k42MC_valloc("a.c", 4, 10);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(page) % 4096, 0u);
    k42MC_free("a.c", 5, page);
}

TEST_P(StandardFamily, RefusesAlignmentsItCannotRecord) {
    for (const size_t alignment : {size_t{0}, size_t{1}, sizeof(void *) / 2, size_t{24},
                                   size_t{K42MC_ALIGN_MAX} * 2, size_t{1} << (8 * sizeof(size_t) - 1)}) {
        void *block = this;
        errno = 42;
        EXPECT_EQ(captured_stderr(
                      [&] { EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, alignment, 9), EINVAL); }),
                  "a.c:1:NA:0x0:9\n");
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(errno, 42);
    }
    void *block = this;
    volatile size_t huge = std::numeric_limits<size_t>::max() - 100;
    EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, 4096, huge), ENOMEM);
    EXPECT_EQ(block, nullptr);
}

TEST_P(StandardFamily, KeepsAnAlignedBlockThatCannotBeResized) {
    NEEDS_OWN_MALLOC();
    void *block = nullptr;
    for (const size_t size : {500, 20}) {
        ASSERT_EQ(k42MC_posix_memalign("a.c", 1, &block, 256, 50), 0);
        const std::string content = text(50);
        memcpy(block, content.data(), 50);
        failing_malloc(1, false, [&] { EXPECT_EQ(k42MC_realloc("a.c", 2, block, size), nullptr); });
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 256, 0u);
        EXPECT_EQ(std::string(static_cast<char *>(block), 50), content);
        k42MC_free("a.c", 3, block);
    }
    failing_malloc(1, false,
                   [&] { EXPECT_EQ(k42MC_posix_memalign("a.c", 4, &block, 256, 50), ENOMEM); });
    EXPECT_EQ(block, nullptr);
}

TEST_P(StandardFamily, KeepsObjectsOfEveryTypeApart) {
    for (const int type : {MC_STD, MC_SYS, MC_FIX, MC_VAR}) {
        void *block = k42mcx_alloc("a.c", 1, type, 64, 10);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0u);
        const Ended end = ended([&] { k42mcx_free("a.c", 2, MC_VAR - type, block); });
        EXPECT_EQ(end.out.find(std::string("BF: alloc(") + gAllocatorType[type]),
                  strlen("k42mc detected "));
        k42mcx_free("a.c", 2, type, block);
    }
    EXPECT_EQ(k42mcx_alloc("a.c", 1, MC_SHM, 1, 10), nullptr);
    EXPECT_EQ(k42mcx_alloc("a.c", 1, MC_FIX, 3, 10), nullptr);
}

TEST_P(StandardFamily, LeavesTheUnderlyingCallsToTheMemoryManager) {
    manager_calls.clear();
    const auto with = [](size_t size) { return std::to_string(size + overhead) + ' '; };
    char *copy = k42MC_MM_strdup("a.c", 1, "twelve chars");
    EXPECT_STREQ(copy, "twelve chars");
    void *block = k42MC_MM_realloc("a.c", 2, k42MC_MM_calloc("a.c", 2, 6, 7), 50);
    k42MC_MM_free("a.c", 3, copy);
    k42MC_MM_free("a.c", 3, block);
    EXPECT_EQ(captured_stderr([] { k42MC_MM_free("a.c", 3, nullptr); }).substr(0, 15),
              "a.c:3:NF:0x0:0\n");
    EXPECT_EQ(k42MC_MM_realloc("a.c", 4, nullptr, 0), nullptr);
    EXPECT_EQ(manager_calls, "M" + with(13) + "C" + with(42) + "R" + with(50) + "F1 F1 F0 F0 ");
    manager_fails = true;
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42MC_MM_strdup("a.c", 5, "abc"), nullptr); }),
              "a.c:5:NA:0x0:4\n");
}

} // namespace
