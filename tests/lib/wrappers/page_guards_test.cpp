// Blocks with pages of their own. Each test switches them on in a child process: they stay.
#include "checker.h"
#include "ended.h"
#include "forking_handler.h"
#include "random.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cinttypes>
#include <csetjmp>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <regex>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace {

constexpr size_t page = 4096;
constexpr size_t natural = 2 * sizeof(void *);
const char site[] = "pages.c";

char *allocate(size_t size) {
    return static_cast<char *>(k42MC_malloc(site, 7, size));
}

void release(void *block) {
    k42MC_free(site, 8, block);
}

[[gnu::noinline]] char read_at(const volatile char *at) {
    return *at;
}

[[gnu::noinline]] void write_at(volatile char *at) {
    *at = 'x';
}

void expect_zero(int failure) {
    if (failure != 0)
        std::exit(3);
}

// A child in which every block has pages.
template <class Action> Ended ended_with_pages(uint32_t flags, Action action) {
    return ended([&] {
        expect_zero(k42mcx_page_guards(1, flags));
        action();
    });
}

// Both texts in full, but for addresses, the files of symbols and numbers of threads.
std::string generalized(const std::string &text) {
    std::string result = std::regex_replace(text, std::regex("0x[0-9a-f]+"), "P");
    result = std::regex_replace(result, std::regex("thread [0-9]+"), "thread T");
    return std::regex_replace(result, std::regex("(^|\n)[^\n]* \\[P\\]"), "$1frame");
}

void expect_access(const Ended &end, const std::string &code, size_t size, long offset,
                   const std::string &words) {
    const std::string sign = offset < 0 ? "" : "+";
    EXPECT_TRUE(end.aborted()) << end.status;
    EXPECT_EQ(generalized(end.out), "k42mc detected " + code + ": alloc(STD) usrPtr(P) usrSize(" +
                                        std::to_string(size) + ") access(P" + sign +
                                        std::to_string(offset) + ") trace buffer: P P P P P\r\n");
    EXPECT_STARTS(end.err, "k42mc: a " + words +
                               ", allocated at pages.c:7\n"
                               "Backtrace of the access by thread ");
    EXPECT_CONTAINS(end.err, "------\nBacktrace of the allocation by thread ");
    EXPECT_EQ(contains(end.err, "------\nBacktrace of the release by thread "), code[1] == 'F');
    EXPECT_CONTAINS(end.err, "assertion \"0\" failed");
}

struct Miss {
    uint32_t flags;
    size_t size;
    long offset;
    const char *code, *words;
};

std::ostream &operator<<(std::ostream &out, const Miss &miss) {
    return out << miss.flags << ": " << miss.size << " bytes, at " << miss.offset;
}

class Misses : public testing::TestWithParam<Miss> {};

TEST_P(Misses, AreToldAtTheAccess) {
    const Miss &miss = GetParam();
    for (const bool is_write : {false, true}) {
        const Ended end = ended_with_pages(miss.flags, [&] {
            char *at = allocate(miss.size) + miss.offset;
            is_write ? write_at(at) : static_cast<void>(read_at(at));
        });
        const std::string kind = is_write ? "write " : "read ";
        expect_access(end, (is_write ? "W" : "R") + std::string(miss.code), miss.size, miss.offset,
                      kind + miss.words);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pages, Misses,
    testing::Values(
        Miss{K42MCX_PAGES_END, 96, 96, "O", "at the end of a block of 96 bytes"},
        Miss{K42MCX_PAGES_END, 96, 383, "O", "287 bytes past the end of a block of 96 bytes"},
        Miss{K42MCX_PAGES_END, 0, 0, "O", "at the end of a block of 0 bytes"},
        Miss{K42MCX_PAGES_END, 1, 1, "O", "at the end of a block of 1 byte"},
        Miss{K42MCX_PAGES_END, 4096, -1, "U", "1 byte before a block of 4096 bytes"},
        Miss{K42MCX_PAGES_END, 4096, 4096, "O", "at the end of a block of 4096 bytes"},
        Miss{K42MCX_PAGES_END, 12288, -1, "U", "1 byte before a block of 12288 bytes"},
        Miss{K42MCX_PAGES_END, 1 << 20, 1 << 20, "O", "at the end of a block of 1048576 bytes"},
        Miss{K42MCX_PAGES_END | K42MCX_PAGES_EXACT, 101, 101, "O", "at the end of a block of 101 bytes"},
        Miss{K42MCX_PAGES_START, 96, -1, "U", "1 byte before a block of 96 bytes"},
        Miss{K42MCX_PAGES_START, 96, 4096, "O", "4000 bytes past the end of a block of 96 bytes"},
        Miss{K42MCX_PAGES_START, 4097, -1, "U", "1 byte before a block of 4097 bytes"}));

TEST(PageGuards, TellOfReleasedBlocks) {
    for (const size_t size : {size_t{1}, size_t{96}, page + 1, size_t{1} << 20}) {
        const std::string rest =
            "a released block of " + std::to_string(size) + " byte" + (size == 1 ? "" : "s");
        const std::string last = std::to_string(size - 1) + " byte" + (size == 2 ? "" : "s");
        const Ended read = ended_with_pages(0, [&] {
            char *block = allocate(size);
            release(block);
            read_at(block);
        });
        expect_access(read, "RF", size, 0, "read at the start of " + rest);
        const Ended write = ended_with_pages(K42MCX_PAGES_START, [&] {
            char *block = allocate(size);
            release(block);
            write_at(block + size - 1);
        });
        expect_access(write, "WF", size, long(size) - 1,
                      "write " + (size == 1 ? "at the start of " : last + " inside ") + rest);
    }
}

// Each is done where it shows in the trace.
[[gnu::noinline]] char *allocates_here() {
    char *block = allocate(100);
    __asm__ volatile("" ::: "memory");
    return block;
}
[[gnu::noinline]] void releases_here(char *block) {
    release(block);
    __asm__ volatile("" ::: "memory");
}
[[gnu::noinline]] void reads_here(char *block) {
    read_at(block + 8);
    __asm__ volatile("" ::: "memory");
}

TEST(PageGuards, NameTheThreadsAndTheirTraces) {
    const Ended end = ended_with_pages(0, [] {
        char *block = nullptr;
        std::thread([&] { block = allocates_here(); }).join();
        std::thread([&] { releases_here(block); }).join();
        printf("buffered, ");
        std::thread([&] { reads_here(block); }).join();
    });
    EXPECT_TRUE(end.aborted());
    EXPECT_STARTS(end.out, "buffered, k42mc detected RF: ");
    std::smatch found;
    EXPECT_TRUE(
        std::regex_search(end.err, found,
                          std::regex("k42mc: a read 8 bytes inside a released block of 100 bytes.*\n"
                                     "Backtrace of the access by thread ([0-9]+):\n"
                                     ".*read_at.*\n.*reads_here.*\n(?:.*\n)*?------\n"
                                     "Backtrace of the allocation by thread ([0-9]+):\n"
                                     "(?:.*allocate.*\n)?.*allocates_here.*\n(?:.*\n)*?------\n"
                                     "Backtrace of the release by thread ([0-9]+):\n"
                                     "(?:.*release.*\n)?.*releases_here.*\n(?:.*\n)*?------\n")))
        << end.err;
    EXPECT_NE(found[1], found[2]);
    EXPECT_NE(found[2], found[3]);
}

TEST(PageGuards, KeepAlignmentsAndNumbersOfBytes) {
    const Ended end = ended([] {
        for (const uint32_t flags : {K42MCX_PAGES_END, K42MCX_PAGES_START, K42MCX_PAGES_EXACT}) {
            expect_zero(k42mcx_page_guards(1, flags));
            for (const size_t size :
                 {0, 1, 2, 3, 5, 8, 15, 16, 17, 100, 4095, 4096, 4097, 8192, 1 << 20}) {
                char *block = allocate(size);
                const size_t most = std::bit_floor(std::max<size_t>(size, 1));
                if ((flags & K42MCX_PAGES_EXACT) == 0)
                    EXPECT_EQ(number(block) % std::min(natural, most), 0u) << size;
                else
                    EXPECT_EQ((number(block) + size) % page, 0u) << size;
                EXPECT_EQ(k42mcx_malloc_usable_size(block), size);
                memset(block, 'x', size);
                release(block);
            }
            for (size_t alignment = sizeof(void *); alignment <= 2 * page; alignment *= 2) {
                void *block = nullptr;
                expect_zero(k42MC_posix_memalign(site, 7, &block, alignment, 24));
                EXPECT_EQ(number(block) % alignment, 0u) << alignment;
                memset(block, 'x', 24);
                release(block);
                block = k42mcx_alloc(site, 7, MC_FIX, alignment, 24);
                EXPECT_EQ(number(block) % alignment, 0u) << alignment;
                k42mcx_free(site, 8, MC_FIX, block);
            }
            void *whole = k42MC_valloc(site, 7, 100);
            EXPECT_EQ(number(whole) % page, 0u);
            release(whole);
        }
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

TEST(PageGuards, FindWritesBesideTheBlockAtItsRelease) {
    for (const long offset : {-1L, 5L, 7L}) {
        const Ended end = ended_with_pages(0, [&] {
            char *block = allocate(5); // with three bytes behind it
            write_at(block + offset);
            release(block);
        });
        EXPECT_TRUE(end.aborted());
        EXPECT_EQ(generalized(end.out), std::string("k42mc detected ") + (offset < 0 ? "WU" : "WO") +
                                            ": alloc(UNKNOWN) free(STD) usrPtr(P) usrSize(5) "
                                            "trace buffer: P P P P P\r\n");
        EXPECT_STARTS(end.err, std::string("k42mc: a write ") +
                                   (offset < 0 ? "before the start" : "past the end") +
                                   " of a block of 5 bytes");
    }
}

TEST(PageGuards, FindThemWhenAsked) {
    const Ended end = ended_with_pages(0, [] {
        checker_on();
        char *block = allocate(5);
        expect_zero(int(k42mcx_verify()));
        write_at(block - 1);
        EXPECT_EQ(k42mcx_verify(), 1u);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out;
    EXPECT_CONTAINS(end.err, "pages.c:7:WU:STD:0x");
}

TEST(PageGuards, TellReleasesThatAreNone) {
    struct {
        const char *line, *words;
        void (*action)(char *block);
    } const cases[] = {
        {"DF: alloc(STD) free(STD)", "a second release of a block of 100 bytes",
         [](char *block) { release(block), release(block); }},
        {"WU: alloc(STD) free(STD)",
         "a release of an address 44 bytes inside a block of 100 bytes, allocated at pages.c:7\n",
         [](char *block) { release(block + 44); }},
        {"WU: alloc(STD) free(STD)",
         "a release of an address 44 bytes inside a released block of 100 bytes, allocated at "
         "pages.c:7\n",
         [](char *block) { release(block), release(block + 44); }},
        {"WU: alloc(STD) free(STD)", "a release of an address at the end of a block of 100 bytes",
         [](char *block) { release(block + 100); }},
        {"BF: alloc(STD) free(FIX)",
         "a release to the wrong allocator, FIX, of a block of 100 bytes from STD",
         [](char *block) { k42mcx_free(site, 8, MC_FIX, block); }},
        {"DF: alloc(STD) free(STD)", "a second release of a block of 100 bytes",
         [](char *block) { release(block), static_cast<void>(!k42MC_realloc(site, 8, block, 8)); }},
    };
    for (const auto &one : cases)
        for (const bool on : {false, true}) {
            const Ended end = ended_with_pages(0, [&] {
                if (on)
                    checker_on();
                one.action(allocate(100));
            });
            EXPECT_TRUE(end.aborted());
            EXPECT_STARTS(end.out, std::string("k42mc detected ") + one.line);
            EXPECT_CONTAINS(end.out, " usrSize(100) ");
            EXPECT_CONTAINS(end.err, std::string("k42mc: ") + one.words);
        }
}

TEST(PageGuards, GoOnIfTheyAreTo) {
    const Ended end = ended_with_pages(K42MCX_PAGES_GO_ON, [] {
        char *first = allocate(64), *second = allocate(64);
        release(first);
        write_at(first), read_at(first + 1), write_at(second + 64), write_at(second + 65);
        EXPECT_EQ(first[0], 'x');
        release(second);
        for (int i = 0; i < 3; ++i) { // whatever was left there is gone
            char *block = static_cast<char *>(k42MC_calloc(site, 7, 1, 64));
            EXPECT_EQ(std::string(block, 64), std::string(64, '\0'));
            release(block);
        }
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0));
    EXPECT_EQ(
        generalized(end.out),
        "k42mc detected WF: alloc(STD) usrPtr(P) usrSize(64) access(P+0) trace buffer: P P P P P\r\n"
        "k42mc detected WO: alloc(STD) usrPtr(P) usrSize(64) access(P+64) trace buffer: P P P P P\r\n");
}

// Beyond the slots that are ready, and ahead of all of them.
TEST(PageGuards, GoOnFarFromAllBlocks) {
    const Ended end = ended_with_pages(K42MCX_PAGES_GO_ON | K42MCX_PAGES_START, [] {
        char *first = allocate(64), *last = first;
        write_at(first - 1);
        for (int i = 0; i < 100; ++i) {
            last = allocate(64);
            write_at(last + 2 * page);
        }
        for (int i = 0; i < 100; ++i) {
            char *block = static_cast<char *>(k42MC_calloc(site, 7, 1, 64));
            EXPECT_EQ(std::string(block, 64), std::string(64, '\0'));
        }
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.status << end.err;
}

// The order in which pages are used again, and that what they held is gone, with so few that it shows.
TEST(PageGuards, UsePagesAgainInTheOrderOfRelease) {
    const Ended end = ended_with_pages(0, [] {
        char *blocks[3] = {allocate(1 << 20), allocate(1 << 20), allocate(1 << 20)};
        std::vector<char *> order = {blocks[1], blocks[0], blocks[2]};
        for (char *block : order) {
            memset(block, 'x', 1 << 20);
            release(block);
        }
        std::vector<char *> seen;
        for (int i = 0; i < 4000 && seen.size() < 3; ++i) {
            char *block = static_cast<char *>(k42MC_calloc(site, 7, 1, 1 << 20));
            if (std::find(order.begin(), order.end(), block) != order.end()) {
                seen.push_back(block);
                EXPECT_EQ(block[0] | block[(1 << 20) - 1], 0);
            }
            release(block);
        }
        EXPECT_EQ(seen, order);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

// Contents, verification and what is recorded, against a model. Some blocks have pages, others do not, and move from
// one to the other.
void play(Random &random) {
    struct Content {
        size_t size;
        char fill;
    };
    std::map<char *, Content> live;
    size_t bytes = 0;
    for (int step = 0; step < 2000; ++step) {
        const uint32_t flags = random() % 16 & ~unsigned{K42MCX_PAGES_GO_ON};
        expect_zero(k42mcx_page_guards(random() % 4, flags));
        const size_t size = random() % 8 != 0 ? random() % 300 : random() % (3 * page);
        const char fill = char(random());
        char *block = nullptr;
        if (live.size() > 60 || (!live.empty() && random() % 3 == 0)) {
            const auto chosen = std::next(live.begin(), long(random() % live.size()));
            block = chosen->first;
            const Content old = chosen->second;
            ASSERT_EQ(std::string(block, old.size), std::string(old.size, old.fill));
            bytes -= old.size;
            live.erase(chosen);
            if (random() % 2 == 0 || size == 0) {
                release(block);
                continue;
            }
            block = static_cast<char *>(k42MC_realloc(site, 7, block, size));
            const size_t kept = std::min(size, old.size);
            ASSERT_EQ(std::string(block, kept), std::string(kept, old.fill));
        } else if (random() % 2 == 0) {
            block = allocate(size);
        } else {
            block = static_cast<char *>(k42MC_calloc(site, 7, 1, size));
            ASSERT_EQ(std::string(block, size), std::string(size, '\0'));
        }
        memset(block, fill, size);
        ASSERT_TRUE(live.emplace(block, Content{size, fill}).second);
        bytes += size;
        if (step % 200 == 0) {
            ASSERT_EQ(k42mcx_verify(), 0u);
            const std::string held =
                std::to_string(bytes) + " bytes held by " + std::to_string(live.size()) + " allocations";
            ASSERT_TRUE(contains(report(0), "Since reset: " + held));
        }
    }
    for (const auto &[block, content] : live)
        release(block);
}

TEST(PageGuards, AgreeWithAModel) {
    Random random;
    const Ended end = ended([&] {
        checker_on();
        play(random);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

bool has_pages(const char *block, size_t size) {
    return (number(block) + size) % page == 0;
}

TEST(PageGuards, AreForOneOfSoMany) {
    const Ended end = ended([] {
        expect_zero(k42mcx_page_guards(100, K42MCX_PAGES_EXACT));
        std::vector<size_t> places;
        for (size_t i = 0; i < 100'000; ++i) {
            char *block = allocate(33);
            if (has_pages(block, 33))
                places.push_back(i);
            release(block);
        }
        EXPECT_GT(places.size(), 800u);
        EXPECT_LT(places.size(), 1200u);
        std::map<size_t, int> distances; // not always the same
        for (size_t i = 1; i < places.size(); ++i)
            ++distances[places[i] - places[i - 1]];
        EXPECT_GT(distances.size(), 100u);
        expect_zero(k42mcx_page_guards(0, 0));
        for (int i = 0; i < 10'000; ++i) {
            char *block = allocate(33);
            EXPECT_FALSE(has_pages(block, 33) && has_pages(allocate(33), 33));
            release(block);
        }
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

TEST(PageGuards, RefuseOtherFlags) {
    EXPECT_EQ(k42mcx_page_guards(1, 16), EINVAL);
    EXPECT_EQ(k42mcx_page_guards(1, ~0u), EINVAL);
}

bool has_cheap_bars() {
    constexpr int install_guards = 102;
    void *const mapped = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool has = madvise(mapped, page, install_guards) == 0;
    munmap(mapped, page);
    return has;
}

// A system that keeps bars in page tables would put all of the addresses into a core file.
TEST(PageGuards, AreNotInCoreFilesButWhereBlocksAre) {
    const Ended end = ended_with_pages(0, [] {
        const auto block = reinterpret_cast<uintptr_t>(allocate(64));
        std::ifstream maps("/proc/self/smaps");
        std::string line;
        bool has_block = false, is_behind = false; // the mapping, and its neighbour
        int found = 0;
        for (uintptr_t begin = 0, end = 0; std::getline(maps, line);) {
            if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " ", &begin, &end) == 2) {
                is_behind = has_block;
                has_block = begin <= block && block < end;
            }
            if (line.starts_with("VmFlags:") && (has_block || is_behind)) {
                EXPECT_EQ(contains(line, " dd"), is_behind) << line;
                ++found;
            }
        }
        EXPECT_EQ(found, 2);
        std::_Exit(testing::Test::HasFailure());
    });
    if (!has_cheap_bars())
        GTEST_SKIP() << "this system does not";
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

// Linux before 6.13 knows no guards in page tables; a process may deny itself the call later, too.
void deny_cheap_bars() {
    constexpr unsigned install_guards = 102, third_argument = offsetof(seccomp_data, args) + 16;
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_madvise, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, third_argument),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, install_guards, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog whole{sizeof program / sizeof *program, program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    expect_zero(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &whole));
}

TEST(PageGuards, AgreeWithAModelOnOlderSystems) {
    Random random;
    const Ended end = ended([&] {
        deny_cheap_bars();
        checker_on();
        play(random);
        char *block = allocate(64);
        release(block);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
    const Ended use = ended([] {
        deny_cheap_bars();
        expect_zero(k42mcx_page_guards(1, 0));
        char *block = allocate(64);
        release(block);
        read_at(block);
    });
    expect_access(use, "RF", 64, 0, "read at the start of a released block of 64 bytes");
}

// Far more live blocks than mappings, or memory: the rest is guarded as usual, and nothing else fails.
TEST(PageGuards, LeaveBlocksThatFindNoRoomToTheUsualGuards) {
    for (const bool older : {false, true}) {
        const Ended end = ended([&] {
            if (older)
                deny_cheap_bars();
            expect_zero(k42mcx_page_guards(1, K42MCX_PAGES_EXACT));
            constexpr size_t count = 100'000;
            std::vector<char *> blocks;
            size_t with_pages = 0;
            for (size_t i = 0; i < count; ++i) {
                blocks.push_back(allocate(33));
                with_pages += has_pages(blocks.back(), 33);
                blocks.back()[32] = 'x';
            }
            EXPECT_GT(with_pages, 10'000u);
            EXPECT_LT(with_pages, count);
            void *mapped = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            EXPECT_NE(mapped, MAP_FAILED);
            for (char *block : blocks)
                release(block);
            EXPECT_TRUE(has_pages(allocate(33), 33)); // there is room again
            char *last = static_cast<char *>(nullptr);
            for (char *block : blocks)
                if (!has_pages(block, 33))
                    last = block;
            EXPECT_NE(last, nullptr);
            std::_Exit(testing::Test::HasFailure());
        });
        EXPECT_TRUE(end.exited(0)) << end.out << end.err;
    }
}

// What is left of released blocks must not come back in new ones.
void expect_zeros_in_new_blocks() {
    for (int i = 0; i < 1000; ++i) {
        char *block = static_cast<char *>(k42MC_calloc(site, 7, 1, 64));
        EXPECT_EQ(std::string(block, 64), std::string(64, '\0'));
        memset(block, 'x', 64);
        release(block);
    }
}

TEST(PageGuards, WorkInLockedMemory) {
    const Ended end = ended_with_pages(K42MCX_PAGES_EXACT, [] {
        char *block = allocate(64);
        memset(block, 'x', 64);
        if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
            std::_Exit(77);
        EXPECT_TRUE(has_pages(allocate(33), 33));
        release(block);
        expect_zeros_in_new_blocks();
        EXPECT_TRUE(has_pages(allocate(33), 33) && has_pages(allocate(33), 33));
        if (testing::Test::HasFailure())
            std::_Exit(1);
        read_at(block);
    });
    if (end.exited(77))
        GTEST_SKIP() << "this user may not lock memory";
    expect_access(end, "RF", 64, 0, "read at the start of a released block of 64 bytes");
}

TEST(PageGuards, SurviveThatPagesCannotBeBarredAnyMore) {
    const Ended end = ended_with_pages(0, [] {
        release(allocate(64)); // there are slots that are ready
        deny_cheap_bars();
        expect_zeros_in_new_blocks();
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

// ---- Handlers of the process's own ----

sigjmp_buf back;
std::atomic<int> handled = 0;
const char *barred = nullptr;

void go_back(int) {
    ++handled;
    siglongjmp(back, 1);
}

void go_on(int, siginfo_t *info, void *) {
    ++handled;
    mprotect(info->si_addr, page, PROT_READ | PROT_WRITE);
}

char *map_barred() {
    return static_cast<char *>(mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

TEST(PageGuards, LeaveOtherFaultsToWhoHandlesThem) {
    const Ended end = ended([] {
        struct sigaction action {};
        action.sa_sigaction = go_on;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &action, nullptr);
        expect_zero(k42mcx_page_guards(1, 0));
        char *theirs = map_barred();
        write_at(theirs);
        EXPECT_EQ(handled, 1);
        EXPECT_EQ(*theirs, 'x');
        kill(getpid(), SIGSEGV); // with an address that says nothing
        EXPECT_EQ(handled, 2);
        if (testing::Test::HasFailure())
            std::_Exit(1);
        read_at(allocate(64) + 64);
    });
    expect_access(end, "RO", 64, 64, "read at the end of a block of 64 bytes");
}

TEST(PageGuards, LetHandlersJumpAndEndAsTheyWouldHave) {
    const Ended end = ended([] {
        struct sigaction action {};
        action.sa_handler = go_back;
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
        sigaction(SIGSEGV, &action, nullptr);
        expect_zero(k42mcx_page_guards(1, 0));
        if (sigsetjmp(back, 1) == 0)
            read_at(map_barred());
        EXPECT_EQ(handled, 1);
        if (testing::Test::HasFailure())
            std::_Exit(1);
        read_at(map_barred());
    });
    EXPECT_TRUE(WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGSEGV) << end.status << end.err;
    EXPECT_EQ(end.out + end.err, "");
}

TEST(PageGuards, LetTracesLeadOutOfHandlers) {
    const Ended end = ended([] {
        signal(SIGSEGV, [](int) {
            char *block = allocate(100);
            release(block), release(block);
        });
        expect_zero(k42mcx_page_guards(1, 0));
        reads_here(map_barred());
    });
    EXPECT_STARTS(end.out, "k42mc detected DF: ");
    EXPECT_TRUE(std::regex_search(end.err, std::regex("Backtrace of the release:\n(?:.*\n)*?"
                                                      ".*reads_here.*\n(?:.*\n)*?------\n")))
        << end.err;
}

TEST(PageGuards, LeaveTheDefaultAsItIs) {
    for (const bool sent : {false, true}) {
        const Ended end = ended([&] {
            signal(SIGSEGV, SIG_DFL); // whatever a sanitizer has there
            expect_zero(k42mcx_page_guards(1, 0));
            sent ? static_cast<void>(kill(getpid(), SIGSEGV)) : static_cast<void>(read_at(map_barred()));
        });
        EXPECT_TRUE(WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGSEGV) << end.status;
        EXPECT_EQ(end.out + end.err, "");
    }
}

// ---- Where a fault may come ----

TEST(PageGuards, TellOfAnAccessInASignalHandler) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer holds all signals back in handlers";
#endif
    const Ended end = ended_with_pages(0, [] {
        barred = allocate(64);
        release(const_cast<char *>(barred));
        signal(SIGUSR1, [](int) { read_at(barred); });
        raise(SIGUSR1);
    });
    expect_access(end, "RF", 64, 0, "read at the start of a released block of 64 bytes");
}

TEST(PageGuards, TellOfAnAccessWhileTheCheckersLockIsHeld) {
    const Ended end = ended_with_pages(0, [] {
        checker_on();
        char *block = allocate(64);
        release(block);
        if (MCLock() != 0)
            read_at(block);
    });
    expect_access(end, "RF", 64, 0, "read at the start of a released block of 64 bytes");
}

// libc's own functions are where such pointers are used; here with the stream that the line goes past.
TEST(PageGuards, TellOfAnAccessInTheMidstOfPrinting) {
    const Ended end = ended_with_pages(0, [] {
        char *block = allocate(64);
        memset(block, 'x', 64);
        printf("%s\n", block);
    });
    expect_access(end, "RO", 64, 64, "read at the end of a block of 64 bytes");
}

TEST(PageGuards, LeaveSystemCallsTheirError) {
    const Ended end = ended_with_pages(0, [] {
        char *block = allocate(64);
        release(block);
        EXPECT_EQ(write(STDOUT_FILENO, block, 64), -1);
        EXPECT_EQ(errno, EFAULT);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0));
}

// A block's own pages wait by themselves; the quarantine has what a reallocation leaves behind for them.
TEST(PageGuards, WorkBesideTheQuarantine) {
    const auto prepare = [](uint32_t one_in) {
        expect_zero(k42mcx_quarantine(1 << 20));
        expect_zero(k42mcx_fill(0xcb));
        expect_zero(k42mcx_page_guards(one_in, 0));
    };
    const Ended uses = ended([&] {
        prepare(1);
        const auto is_new = [](const char *block, size_t from, size_t to) {
            return std::all_of(block + from, block + to, [](char byte) { return byte == '\xcb'; });
        };
        char *block = allocate(100);
        EXPECT_TRUE(is_new(block, 0, 100));
        memset(block, 1, 100);
        block = static_cast<char *>(k42MC_realloc(site, 7, block, 200));
        EXPECT_TRUE(block[99] == 1 && is_new(block, 100, 200));
        auto *const zeros = static_cast<char *>(k42MC_calloc(site, 7, 1, 100));
        EXPECT_EQ(zeros[99], 0);
        expect_zero(k42mcx_page_guards(0, 0));
        block = static_cast<char *>(k42MC_realloc(site, 7, block, 300));
        EXPECT_TRUE(block[99] == 1 && is_new(block, 200, 300));
        EXPECT_EQ(k42mcx_verify(), 0);
        expect_zero(k42mcx_quarantine(0));
        release(zeros), release(block);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(uses.exited(0)) << uses.out << uses.err;
    expect_access(ended([&] {
                      prepare(1);
                      char *block = allocate(64);
                      release(block);
                      expect_zero(k42mcx_quarantine(0));
                      read_at(block);
                  }),
                  "RF", 64, 0, "read at the start of a released block of 64 bytes");
    const Ended second = ended([&] {
        prepare(0);
        char *block = allocate(64);
        expect_zero(k42mcx_page_guards(1, 0));
        static_cast<void>(!k42MC_realloc(site, 8, block, 128));
        release(block);
    });
    EXPECT_STARTS(second.out, "k42mc detected DF: alloc(STD) free(STD)");
    EXPECT_STARTS(
        second.err,
        "k42mc: a second release of a block of 64 bytes, already released at pages.c:8 by thread ");
}

TEST(PageGuards, GoOnInForkedChildren) {
    const Ended end = ended_with_pages(0, [] {
        char *block = allocate(64), *released = allocate(64);
        memset(block, 'x', 64);
        release(released);
        const pid_t child = fork();
        if (child == 0) {
            EXPECT_EQ(block[63], 'x');
            for (int i = 0; i < 100; ++i)
                release(allocate(100));
            release(block);
            if (testing::Test::HasFailure())
                std::_Exit(1);
            read_at(released);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
        EXPECT_EQ(block[63], 'x');
        release(block);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0));
    EXPECT_STARTS(end.out, "k42mc detected RF: ");
}

TEST(PageGuards, LetHandlersFork) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "to the sanitizer, a handler takes locks in the wrong order there";
#endif
    const Ended end = ended_with_pages(0, [] {
        work_while_handlers_fork([] {
            for (int i = 0; i < 1000; ++i)
                release(allocate(100));
        });
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
}

// Threads that release each other's blocks, while others fork.
TEST(PageGuards, AreSharedByThreads) {
    const Ended end = ended_with_pages(K42MCX_PAGES_MIXED, [] {
        std::vector<std::atomic<char *>> shared(64);
        std::vector<std::thread> threads;
        for (unsigned seed = 1; seed <= 8; ++seed)
            threads.emplace_back([&shared, seed] {
                std::minstd_rand random(seed);
                for (int i = 0; i < 2000; ++i) {
                    char *block = allocate(random() % 200 + 1);
                    block[0] = 'x';
                    char *old = shared[random() % shared.size()].exchange(block);
                    if (old != nullptr && old[0] == 'x')
                        release(old);
                    if (i % 500 == 0) {
                        const pid_t child = fork();
                        if (child == 0) {
                            release(allocate(10));
                            std::_Exit(0);
                        }
                        waitpid(child, nullptr, 0);
                    }
                }
            });
        for (std::thread &thread : threads)
            thread.join();
        std::_Exit(0);
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

// What only a block with pages leads to is not lost, and such a block can be.
TEST(PageGuards, HideNothingFromTheSearchForLostBlocks) {
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer's frames have stale copies of the pointer";
#endif
    const Ended end = ended([] {
        checker_on();
        expect_zero(k42mcx_page_guards(1, 0));
        static char **holder = reinterpret_cast<char **>(allocate(sizeof(char *)));
        *holder = allocate(77);
        allocate(33);
        char scrubbed[4096]; // stale copies of that pointer
        memset(scrubbed, 0, sizeof scrubbed);
        __asm__ volatile("" : : "r"(scrubbed) : "memory");
        EXPECT_EQ(k42mcx_lost(0), 1u);
        release(*holder);
        release(holder);
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
    EXPECT_CONTAINS(end.err, ":33:0");
}

} // namespace
