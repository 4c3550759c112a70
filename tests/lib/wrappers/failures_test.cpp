// Allocations that fail on purpose. Each test chooses them in a child process.
#include "checker.h"
#include "ended.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

namespace {

void *allocate(size_t size) {
    return k42MC_malloc("there.c", 7, size);
}

[[gnu::noinline]] void *allocate_here(size_t size) {
    void *volatile block = k42MC_malloc("here.c", 7, size);
    return block;
}

bool is_null(void *block) {
    k42MC_free("free.c", 1, block);
    return block == nullptr;
}

template <class Action> void expect_well(Action action) {
    const Ended end = ended([&] {
        action();
        std::_Exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(end.exited(0)) << end.out << end.err;
}

constexpr auto nth = &k42mcx_failures::nth;
constexpr auto one_in = &k42mcx_failures::one_in;
constexpr auto seed = &k42mcx_failures::seed;
constexpr auto above = &k42mcx_failures::above;
constexpr auto at = &k42mcx_failures::at;
constexpr auto only = &k42mcx_failures::only;
constexpr auto except = &k42mcx_failures::except;

template <class Member, class Value, class... Rest>
int fail(k42mcx_failures which, Member member, Value value, Rest... rest) {
    which.*member = static_cast<std::remove_reference_t<decltype(which.*member)>>(value);
    if constexpr (sizeof...(rest) == 0)
        return k42mcx_fail(&which);
    else
        return fail(which, rest...);
}

template <class... Wishes> void choose(Wishes... wishes) {
    ASSERT_EQ(fail({}, wishes...), 0);
}

// Which of so many allocations fail.
std::vector<int> failing(int count) {
    std::vector<int> numbers;
    for (int i = 1; i <= count; ++i)
        if (is_null(allocate(16)))
            numbers.push_back(i);
    return numbers;
}

TEST(Failures, AreTheOneOfANumber) {
    expect_well([] {
        choose(nth, 3);
        EXPECT_EQ(failing(10), std::vector{3});
        choose(nth, 1);
        EXPECT_EQ(failing(10), std::vector{1});
        EXPECT_EQ(k42mcx_failed(), 2u);
        EXPECT_EQ(k42mcx_fail(nullptr), 0);
        EXPECT_EQ(failing(10), std::vector<int>{});
    });
}

TEST(Failures, AreDrawnAgainFromTheSameSeed) {
    expect_well([] {
        choose(one_in, 10, seed, 1);
        const std::vector<int> first = failing(10'000);
        EXPECT_GT(first.size(), 800u);
        EXPECT_LT(first.size(), 1200u);
        choose(one_in, 10, seed, 1);
        EXPECT_EQ(failing(10'000), first);
        choose(one_in, 10, seed, 2);
        EXPECT_NE(failing(10'000), first);
        choose(one_in, 1);
        EXPECT_EQ(failing(3), (std::vector{1, 2, 3}));
    });
}

TEST(Failures, AreThoseAboveASize) {
    expect_well([] {
        choose(above, 100);
        EXPECT_FALSE(is_null(allocate(100)));
        EXPECT_TRUE(is_null(allocate(101)));
    });
}

TEST(Failures, AreThoseAtAPlace) {
    expect_well([] {
        choose(at, "(*allocate_here*+");
        EXPECT_TRUE(is_null(allocate_here(1)));
        EXPECT_FALSE(is_null(allocate(1)));
        choose(at, "^there.c$");
        EXPECT_FALSE(is_null(allocate_here(1)));
        EXPECT_TRUE(is_null(allocate(1)));
        choose(at, "failures_test"); // a module, as well
        EXPECT_TRUE(is_null(allocate_here(1)));
    });
}

TEST(Failures, AreOfThoseThatAreLeft) {
    expect_well([] {
        choose(nth, 2, only, "here.c", except, "there.c");
        EXPECT_FALSE(is_null(allocate(1)));
        EXPECT_FALSE(is_null(allocate_here(1)));
        EXPECT_FALSE(is_null(allocate(1)));
        EXPECT_TRUE(is_null(allocate_here(1)));
    });
}

TEST(Failures, AreWhatEachWrapperReturns) {
    expect_well([] {
        void *kept = allocate(8);
        strcpy(static_cast<char *>(kept), "as ever");
        choose(one_in, 1);
        errno = 0;
        EXPECT_TRUE(allocate(8) == nullptr && errno == ENOMEM);
        errno = 0;
        EXPECT_TRUE(k42MC_calloc("a.c", 1, 2, 4) == nullptr && errno == ENOMEM);
        errno = 0;
        EXPECT_TRUE(k42MC_realloc("a.c", 1, kept, 800) == nullptr && errno == ENOMEM);
        EXPECT_STREQ(static_cast<char *>(kept), "as ever");
        errno = 0;
        EXPECT_TRUE(k42MC_realloc("a.c", 1, nullptr, 8) == nullptr && errno == ENOMEM);
        EXPECT_TRUE(k42MC_valloc("a.c", 1, 8) == nullptr);
        EXPECT_TRUE(k42mcx_alloc("a.c", 1, MC_VAR, 1, 8) == nullptr);
        EXPECT_TRUE(k42mcx_strdup("a.c", 1, "text") == nullptr);
        errno = 5;
        void *block = kept;
        EXPECT_EQ(k42MC_posix_memalign("a.c", 1, &block, 64, 8), ENOMEM);
        EXPECT_EQ(errno, 5);
        EXPECT_EQ(k42MC_realloc("a.c", 1, kept, 0), nullptr); // a release
    });
}

TEST(Failures, HaveTheirLines) {
    const Ended end = ended([] {
        checker_on();
        choose(nth, 1);
        allocate(123);
        std::_Exit(0);
    });
    EXPECT_CONTAINS(end.err, "there.c:7: allocation 1 fails on purpose\nBacktrace of the allocation:\n");
    EXPECT_CONTAINS(end.err, "------\nthere.c:7:NA:0x0:123\n");
}

TEST(Failures, ComeAheadOfPages) {
    expect_well([] {
        ASSERT_EQ(k42mcx_page_guards(1, 0), 0);
        choose(nth, 2);
        EXPECT_EQ(failing(5), std::vector{2});
    });
}

// The loader would end the process.
TEST(Failures, SpareTheLoader) {
    expect_well([] {
        choose(one_in, 1, only, "no such place");
        EXPECT_FALSE(is_null(allocate(1)));
        choose(one_in, 1);
        std::thread([] { static_cast<void>(0); }).join();
        EXPECT_TRUE(is_null(allocate(1)));
    });
}

// Under the thread sanitizer, too.
TEST(Failures, CountEachOfManyThreads) {
    expect_well([] {
        constexpr int threads = 4, blocks = 1000;
        choose(nth, threads * blocks);
        std::vector<std::thread> all;
        for (int i = 0; i < threads; ++i)
            all.emplace_back([] { failing(blocks); });
        for (std::thread &thread : all)
            thread.join();
        EXPECT_EQ(k42mcx_failed(), 1u);
    });
}

TEST(Failures, RefuseLongPatterns) {
    const std::string longest(255, 'x'), longer(256, 'x');
    EXPECT_EQ(fail({}, at, longest.c_str()), 0);
    EXPECT_EQ(fail({}, except, longer.c_str()), ENAMETOOLONG);
    EXPECT_FALSE(is_null(allocate(1)));
}

} // namespace
