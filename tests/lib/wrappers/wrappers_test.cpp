// The allocation wrappers of both families over underlying allocators that can fail.
#include "checker.h"
#include "ended.h"
#include "failing_malloc.h"
#include "random.h"

#include <algorithm>
#include <cstring>
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

    friend void PrintTo(const Family &family, std::ostream *out) { *out << family.name; }
};

const Family families[] = {{"STD", k42MC_malloc, k42MC_calloc, k42MC_realloc, k42MC_free},
                           {"SHM", k42MC_MM_malloc, k42MC_MM_calloc, k42MC_MM_realloc, k42MC_MM_free}};

class Wrappers : public testing::TestWithParam<Family> {
protected:
    void SetUp() override {
        manager_fails = false;
        manager_calls.reserve(1 << 20); // nothing is allocated for the log while malloc fails
        checker_on();
    }
    void TearDown() override { checker_off(); }

    const Family &family = GetParam();
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
    Random random;
    std::map<void *, std::string> blocks;
    for (int step = 0; step < 20000; ++step) {
        const size_t size = random() % 300;
        std::string content(size, char(random()));
        const auto keep = [&](void *block) {
            memcpy(block, content.data(), size);
            blocks[block] = content;
        };
        const size_t operation = blocks.empty() ? 0 : random() % 5;
        if (operation == 0) {
            keep(family.malloc("a.c", step, size));
        } else if (operation == 1) {
            void *block = family.calloc("a.c", step, size, 1);
            ASSERT_EQ(bytes(block, size), std::string(size, '\0'));
            keep(block);
        } else {
            const auto [old, was] = *std::next(blocks.begin(), long(random() % blocks.size()));
            blocks.erase(old);
            ASSERT_EQ(bytes(old, was.size()), was);
            errno = step;
            if (operation > 2) {
                family.free("a.c", step, old);
                ASSERT_EQ(errno, step);
            } else if (void *block = family.realloc("a.c", step, old, size)) {
                const size_t kept = std::min(was.size(), size);
                ASSERT_EQ(bytes(block, kept), was.substr(0, kept));
                keep(block);
            } else {
                ASSERT_EQ(size, 0u);
                ASSERT_EQ(errno, step);
            }
        }
    }
    for (const auto &[block, content] : blocks)
        family.free("a.c", 0, block);
    EXPECT_CONTAINS(report(0), "Since reset: 0 bytes held by 0 allocations");
}

TEST_P(Wrappers, FailWithoutCallWhenTheSizeOverflows) {
    const auto before = manager_calls;
    volatile size_t huge = SIZE_MAX; // hidden from the compiler, which would warn
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
    const std::string max = std::to_string(huge), less = std::to_string(huge - overhead + 1);
    EXPECT_EQ(lines, "a.c:1:NA:0x0:" + max + "\na.c:1:NA:0x0:" + less + "\na.c:2:NA:0x0:" + max + "\n");
    EXPECT_EQ(manager_calls, before);

    void *block = family.malloc("a.c", 3, 10);
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(family.realloc("a.c", 4, block, huge), nullptr); }), "");
    EXPECT_EQ(errno, ENOMEM);
    family.free("a.c", 5, block);
}

TEST_P(Wrappers, LeaveABlockAsItWasWhenItCannotGrow) {
    NEEDS_OWN_MALLOC();
    char *block = static_cast<char *>(family.malloc("a.c", 7, 100));
    strcpy(block, "contents");
    const auto fail = [&] {
        errno = 0;
        EXPECT_EQ(family.realloc("b.c", 8, block, 5000), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(family.malloc("b.c", 9, 11), nullptr);
        EXPECT_EQ(family.calloc("b.c", 10, 3, 5), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    };
    EXPECT_EQ(captured_stderr([&] { failing_malloc(1, true, fail); }),
              "b.c:9:NA:0x0:11\nb.c:10:NA:0x0:15\n");
    EXPECT_STREQ(block, "contents");
    EXPECT_STARTS(check(block), "a.c:7:");
    EXPECT_NE(reinterpret_cast<uintptr_t *>(block - overhead / 2)[1], 0u) << "the guard's trace";
    family.free("a.c", 8, block);
    EXPECT_CONTAINS(check(block), "not known");
}

// With the checker on nothing that is passed may make the checker itself fail.
TEST_P(Wrappers, StopAtPointersThatAreNoBlocks) {
    const Family &wrong = families[family.malloc == families[0].malloc];
    const std::string own = family.name, other = wrong.name;
    const Ended end = expect_defect("BF: alloc(" + own + ") free(" + other,
                                    [&] { wrong.free("b.c", 2, family.malloc("a.c", 1, 24)); });
    EXPECT_STARTS(end.err, "b.c:2:BF: WRONG deallocator type for 0x");
    EXPECT_CONTAINS(end.err, "; allocType: " + own + ", freeType: " + other + "\n");

    const auto *const far = reinterpret_cast<char *>(~uintptr_t{0} - 100);
    const std::string plain(300, '\0');
    for (const char *address : {plain.data() + 150, (const char *)8, (const char *)0x1000, far}) {
        void *pointer = const_cast<char *>(address);
        expect_defect("WU", [&] { family.free("a.c", 1, pointer); });
        expect_defect("WU", [&] { (void)family.realloc("a.c", 1, pointer, 10); });
    }
    expect_defect("DF", [&] {
        void *block = family.malloc("a.c", 1, 3000);
        family.free("a.c", 2, block);
        family.free("a.c", 3, block);
    });
    expect_defect("WO", [&] {
        auto *block = static_cast<char *>(family.malloc("a.c", 1, 33));
        block[33] = 0;
        (void)family.realloc("a.c", 1, block, 70);
    });
}

// What stands on standard error beside the defined line: the finding in words, the stack trace of the release
// and, where there is one, of the allocation or the first release; then the assertion.
void expect_notice(const std::string &err, const std::string &words, const std::string &behind) {
    const std::string trace = "Backtrace of the release:\n";
    const size_t start = err.find("k42mc: ");
    ASSERT_NE(start, std::string::npos) << err;
    EXPECT_EQ(line_at(err, start), "k42mc: " + words);
    const size_t release = err.find('\n', start) + 1;
    EXPECT_EQ(err.compare(release, trace.size(), trace), 0) << err;
    EXPECT_CONTAINS(line_at(err, release + trace.size()), "wrappers_test(") << err;
    const size_t end = err.find("------\n", release) + 7;
    if (behind.empty()) {
        EXPECT_STARTS(err.substr(end), "assertion \"0\" failed: ");
        return;
    }
    const std::string second = "Backtrace of the " + behind + ":\n";
    EXPECT_EQ(err.compare(end, second.size(), second), 0) << err;
    EXPECT_CONTAINS(line_at(err, end + second.size()), "wrappers_test(") << err;
    EXPECT_STARTS(err.substr(err.find("------\n", end) + 7), "assertion \"0\" failed: ");
}

TEST_P(Wrappers, SayInWordsWhatStopsThem) {
    const Family &wrong = families[family.malloc == families[0].malloc];
    const std::string own = family.name, other = wrong.name;
    static char in_data[300];
    for (const bool on : {true, false}) {
        if (!on)
            checker_off();
        const std::string site = on ? ", allocated at a.c:7" : "";
        auto *block = static_cast<char *>(family.malloc("a.c", 7, 100));
        memset(block, 'x', 100);
        const auto stopped = [&](const char *start, auto action) {
            return expect_defect(start, action).err;
        };
        expect_notice(
            stopped("WO: alloc(UNKNOWN)", [&] { block[100] = 0, family.free("b.c", 8, block); }),
            "a write past the end of a block of 100 bytes" + site, "allocation");
        // The trace in the header is only believed as long as that is intact.
        expect_notice(
            stopped("WU: alloc(UNKNOWN)", [&] { block[-1] = char(0xff), family.free("b.c", 8, block); }),
            std::string("a write before the start of a block") + (on ? " of 100 bytes" : "") + site,
            on ? "allocation" : "");
        const auto overwrite = [&] {
            memset(block - overhead / 2, 'A', overhead / 2), family.free("b.c", 8, block);
        };
        expect_notice(stopped("WU: alloc(UNKNOWN)", overwrite),
                      on ? "a write before the start of a block of 100 bytes" + site
                         : "a release of what is no block, or of a block whose header was overwritten",
                      on ? "allocation" : "");
        expect_notice(
            stopped("DF: alloc(", [&] { family.free("b.c", 8, block), family.free("b.c", 9, block); }),
            "a second release of a block of 100 bytes", "first release");
        expect_notice(stopped("BF: alloc(", [&] { wrong.free("b.c", 8, block); }),
                      "a release to the wrong allocator, " + other + ", of a block of 100 bytes from " +
                          own + site,
                      "allocation");
        expect_notice(
            stopped("WU: alloc(UNKNOWN)", [&] { (void)family.realloc("b.c", 8, block + 48, 9); }),
            on ? "a release of an address 48 bytes inside a block of 100 bytes" + site
               : "a release of what is no block, or of a block whose header was overwritten",
            on ? "allocation" : "");
        // Sanitizers keep variables elsewhere.
        auto *const variable = static_cast<char *>(memset(__builtin_alloca(300), 0, 300));
        for (const auto &[address, what] :
             {std::pair<void *, std::string>{variable + 200, "on the stack of this thread"},
              {in_data + 200, "in the data of wrappers_test"},
              {reinterpret_cast<void *>(8), "in no memory"}})
            if (on || address != reinterpret_cast<void *>(8)) // which nobody looks at before reading
                expect_notice(stopped("WU: alloc(UNKNOWN)",
                                      [&, released = address] { family.free("b.c", 8, released); }),
                              "a release of an address " + what, "");
        family.free("a.c", 9, block);
    }
    checker_on();
}

// Records of what went away unseen do not hide a block that lies around them, and are none themselves.
TEST_P(Wrappers, KnowTheLiveBlockAroundAnAddress) {
    constexpr size_t size = 5000;
    std::vector<char> room(size + overhead + 1000, 'x'), elsewhere(size, 'x');
    // So that what lies right ahead is in the same granule of the index.
    char *const raw = room.data() + 256 - number(room.data()) % 128;
    const uint32_t arena = family.malloc == families[0].malloc ? K42MC_ARENA_STD : K42MC_ARENA_SHM;
    auto *const block = static_cast<char *>(k42mc_guard_alloc(arena, 1, raw, uint32_t(size + overhead)));
    ASSERT_EQ(MCLock(), 1);
    MCAlloc("a.c", 7, uint16_t(arena - 1), number(block), size);
    for (char *stale :
         {block - 8, block + 1000, block + 1008, block + 1016, block + 3000, elsewhere.data() + 100})
        MCAlloc("b.c", 8, uint16_t(arena - 1), number(stale), 1000);
    MCUnlock();
    for (char *address : {block + 300, block + 1500, block + 2500, block + size - 1}) {
        const Ended end = expect_defect("WU", [&] { family.free("c.c", 9, address); });
        expect_notice(end.err,
                      "a release of an address " + std::to_string(address - block) +
                          " bytes inside a block of 5000 bytes, allocated at a.c:7",
                      "allocation");
    }
    const Ended end = expect_defect("WU", [&] { family.free("c.c", 9, &elsewhere[500]); });
    expect_notice(end.err, "a release of what is no block, or of a block whose header was overwritten",
                  "");
}

// On a stack as small as the system allows there may be no room for traces, but for the words.
TEST_P(Wrappers, StopOnSmallStacks) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "frames are larger";
#endif
    static auto release = family.free;
    static char *block;
    block = static_cast<char *>(family.malloc("a.c", 7, 100));
    memset(block, 'x', 100);
    const auto run = [](void *) -> void * { return release("b.c", 8, block + 48), nullptr; };
    for (const size_t size : {16 << 10, 20 << 10, 24 << 10, 32 << 10}) {
        const Ended end = expect_defect("WU", [&] {
            pthread_attr_t attributes;
            pthread_attr_init(&attributes);
            pthread_attr_setstacksize(&attributes, size);
            pthread_t thread;
            pthread_create(&thread, &attributes, run, nullptr);
            pthread_join(thread, nullptr);
        });
        EXPECT_STARTS(end.err, "k42mc: a release of an address 48 bytes inside a block of 100 bytes, "
                               "allocated at a.c:7\n");
        EXPECT_ENDS(end.err, "function \"k42mc_guard_free\"\n");
    }
    family.free("a.c", 9, block);
}

// The registry is asked for what lies there, but not waited for.
TEST_P(Wrappers, SayWhatTheyCanWhileTheRegistryIsHeld) {
    const Ended end = expect_defect("WU", [&] {
        auto *block = static_cast<char *>(family.malloc("a.c", 7, 100));
        memset(block, 'x', 100);
        checker_off();
        pthread_mutex_lock(&gMCLock);
        family.free("b.c", 8, block + 48);
    });
    expect_notice(end.err, "a release of what is no block, or of a block whose header was overwritten",
                  "");
}

INSTANTIATE_TEST_SUITE_P(Families, Wrappers, testing::ValuesIn(families),
                         [](const auto &instance) { return std::string(instance.param.name); });

using StandardFamily = Wrappers;
INSTANTIATE_TEST_SUITE_P(Alone, StandardFamily, testing::Values(families[0]));

const std::string letters =
    "abcdefghijklmnopqrstuvwabcdefghijklmnopqrstuvwabcdefghijklmnopqrstuvwabcdef";

// An aligned block that holds the letters, and slack.
void *aligned(size_t alignment) {
    void *block = nullptr;
    errno = 42;
    EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, alignment, 100), 0);
    EXPECT_EQ(errno, 42);
    EXPECT_EQ(number(block) % alignment, 0u);
    memcpy(block, letters.data(), letters.size());
    return block;
}

TEST_P(StandardFamily, AlignsAndLosesTheAlignmentWhenResized) {
    for (size_t alignment = sizeof(void *); alignment <= K42MC_ALIGN_MAX; alignment *= 2) {
        void *block = aligned(alignment);
        if (alignment < 4096) {
            for (const size_t size : {200, 90})
                block = k42MC_realloc("a.c", 2, block, size);
            EXPECT_EQ(bytes(block, letters.size()), letters);
        }
        EXPECT_STARTS(check(block), "a.c:");
        k42MC_cfree("a.c", 3, block);
        EXPECT_CONTAINS(check(block), "not known");
    }
    void *page = k42MC_valloc("a.c", 4, 10);
    EXPECT_EQ(number(page) % 4096, 0u);
    k42MC_free("a.c", 5, page);
}

void refuse(size_t alignment, size_t size, int expected) {
    void *block = &manager_fails;
    errno = 42;
    EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, alignment, size), expected);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(errno, 42);
}

TEST_P(StandardFamily, RefusesAlignmentsItCannotRecord) {
    for (const size_t alignment : {size_t{0}, size_t{1}, sizeof(void *) / 2, size_t{24},
                                   size_t{K42MC_ALIGN_MAX} * 2, size_t{1} << (8 * sizeof(size_t) - 1)})
        EXPECT_EQ(captured_stderr([=] { refuse(alignment, 9, EINVAL); }), "a.c:1:NA:0x0:9\n");
    captured_stderr([=] { refuse(4096, SIZE_MAX - 100, ENOMEM); });
}

TEST_P(StandardFamily, KeepsAnAlignedBlockThatCannotBeResized) {
    NEEDS_OWN_MALLOC();
    for (const size_t alignment : {32, 64, 128, 256, 512, 1024}) {
        for (const size_t size : {500, 20}) {
            void *block = aligned(alignment);
            failing_malloc(1, false, [&] { EXPECT_EQ(k42MC_realloc("a.c", 2, block, size), nullptr); });
            EXPECT_EQ(bytes(block, letters.size()), letters);
            k42MC_free("a.c", 3, block);
        }
    }
    failing_malloc(1, false, [] { refuse(256, 50, ENOMEM); });
}

TEST_P(StandardFamily, KeepsObjectsOfEveryTypeApart) {
    for (const int type : {MC_STD, MC_SYS, MC_FIX, MC_VAR}) {
        void *block = k42mcx_alloc("a.c", 1, type, 64, 10);
        EXPECT_EQ(number(block) % 64, 0u);
        expect_defect(std::string("BF: alloc(") + gAllocatorType[type],
                      [=] { k42mcx_free("a.c", 2, MC_VAR - type, block); });
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
    errno = 42;
    EXPECT_STARTS(captured_stderr([] { k42MC_MM_free("a.c", 3, nullptr); }), "a.c:3:NF:0x0:0\n");
    EXPECT_EQ(errno, 42);
    EXPECT_EQ(k42MC_MM_realloc("a.c", 4, nullptr, 0), nullptr);
    EXPECT_EQ(manager_calls, "M" + with(13) + "C" + with(42) + "R" + with(50) + "F1 F1 F0 F0 ");
    manager_fails = true;
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42MC_MM_strdup("a.c", 5, "abc"), nullptr); }),
              "a.c:5:NA:0x0:4\n");
}

} // namespace
