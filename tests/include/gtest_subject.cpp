// Tests that leave things behind in each way, and tests that do not although they look like it.
#include <k42mc/gtest.hpp>

#include <fcntl.h>
#include <fstream>
#include <memory>
#include <thread>

#ifdef LINKED
#include <k42mc/new.hpp>
#endif

namespace {

// Another listener, which keeps something of each result.
class Keeper : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        kept_.emplace_back(result.message());
    }

    std::vector<std::string> kept_;
};

[[maybe_unused]] const bool keeps = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new Keeper);
    return true;
}();

} // namespace

K42MC_WATCH_TESTS;

namespace {

char *make(int size) {
    return static_cast<char *>(malloc(static_cast<size_t>(size)));
}

int open_null() {
    const int descriptor = open("/dev/null", O_RDONLY);
#ifdef LINKED
    FDOpen("open", descriptor);
#endif
    return descriptor;
}

char *made_once() {
    static char *const made = new char[50];
    return made;
}

char *made_later() {
    static char *const made = new char[60];
    return made;
}

class WarmUp : public testing::Environment {
    void SetUp() override { made_once(); }
};
[[maybe_unused]] auto *const warm_up = testing::AddGlobalTestEnvironment(new WarmUp);

char *volatile kept;
void leave_seven() {
    kept = make(7);
}

TEST(Leaves, Nothing) {
    free(make(10));
    EXPECT_NE(made_once(), nullptr);
    EXPECT_EQ(close(open_null()), 0);
}

TEST(Leaves, Block) {
    kept = make(24);
}

TEST(Leaves, BlocksOfSeveralSites) {
    for (int i = 0; i < 2; ++i)
        kept = make(3);
    kept = new char[5];
    kept = strdup("four");
}

TEST(Leaves, WhatIsMadeOnce) {
    EXPECT_NE(made_later(), nullptr);
}

TEST(Leaves, NothingOnceThatIsMade) {
    EXPECT_NE(made_later(), nullptr);
}

TEST(Leaves, OnAnotherThread) {
    std::thread(leave_seven).join();
}

TEST(Leaves, Descriptor) {
    open_null();
}

class InFixture : public testing::Test {
protected:
    InFixture() : in_constructor_(new int) {}
    void SetUp() override { released_ = std::make_unique<int>(); }

    int *const in_constructor_;
    std::unique_ptr<int> released_;
};

TEST_F(InFixture, Constructor) {
    EXPECT_NE(in_constructor_, nullptr);
}

class SuiteReleases : public testing::Test {
protected:
    static void SetUpTestSuite() { shared_ = make(30), descriptor_ = open_null(); }
    static void TearDownTestSuite() { free(shared_), close(descriptor_); }

    static char *shared_;
    static int descriptor_;
};
char *SuiteReleases::shared_;
int SuiteReleases::descriptor_;

TEST_F(SuiteReleases, First) {}
TEST_F(SuiteReleases, Second) {
    kept = make(2);
}
TEST_F(SuiteReleases, Third) {}

class SuiteLeaves : public testing::Test {
protected:
    static void SetUpTestSuite() { kept = make(31); }
    static void TearDownTestSuite() { kept = make(32), open_null(); }
};

TEST_F(SuiteLeaves, InBothFunctions) {}

// Whoever damages a block undoes it in a later test: the process would stop at the block's release.
class Damages : public testing::Test {
protected:
    static void SetUpTestSuite() {
#ifdef LINKED
        k42mcx_quarantine(1 << 20); // which k42mc run has anyway
#endif
        block_ = make(40);
        released_ = make(41);
        free(released_);
    }
    static void TearDownTestSuite() {
        free(block_);
    }

    static void toggle(char *block, int at) {
        block[at] ^= 1;
    }

    static char *block_, *released_;
};
char *Damages::block_, *Damages::released_;

TEST_F(Damages, End) {
    toggle(block_, 40);
}

TEST_F(Damages, Nothing) {}

TEST_F(Damages, ReleasedBlock) {
    toggle(block_, 40);
    toggle(released_, 3);
}

TEST_F(Damages, Start) {
    toggle(block_, -1);
}

TEST_F(Damages, NothingAnyMore) {
    toggle(block_, -1);
    toggle(released_, 3);
}

TEST(Allowed, Blocks) {
    k42mc::allow_blocks(2, 20);
    kept = make(10);
    kept = make(10);
}

TEST(Allowed, MoreBlocks) {
    k42mc::allow_blocks(1);
    kept = make(11);
    kept = make(12);
}

TEST(Allowed, MoreBytes) {
    k42mc::allow_blocks(1, 12);
    kept = make(13);
}

TEST(Allowed, NoLonger) {
    kept = make(14);
}

TEST(Allowed, Descriptors) {
    k42mc::allow_descriptors(1);
    open_null();
}

TEST(Allowed, Patterns) {
    k42mc::allow_pattern("::make(*)$");
    k42mc::allow_pattern("^/dev/n*ll$");
    kept = make(15);
    open_null();
}

TEST(Allowed, OtherPatterns) {
    k42mc::allow_pattern("^make");
    k42mc::allow_pattern("^/dev$");
    kept = make(16);
    open_null();
}

class AllowedInSuite : public testing::Test {
protected:
    static void SetUpTestSuite() {
        k42mc::allow_pattern("::make");
        kept = make(33);
    }
};

TEST_F(AllowedInSuite, First) {
    kept = make(34);
}

// What GoogleTest, the C++ library and libc keep.
TEST(Outcome, Failure) {
    SCOPED_TRACE("a message that is too long for a string's own room");
    RecordProperty("a key that is too long for a string's own room",
                   "and a value that is as long as that");
    ADD_FAILURE() << "a message that is too long for a string's own room, too";
}

TEST(Outcome, FailureThatLeavesABlock) {
    kept = make(17);
    ASSERT_TRUE(false) << "says so";
    free(kept);
}

TEST(Outcome, Skipped) {
    GTEST_SKIP() << "for a reason that is too long for a string's own room";
}

TEST(Outcome, SkippedThatLeavesABlock) {
    kept = make(18);
    GTEST_SKIP() << "for a reason";
}

TEST(Outcome, DISABLED_Test) {
    kept = make(19);
}

TEST(Outcome, Exception) {
    throw std::runtime_error("thrown");
}

TEST(Outcome, FastDeath) {
    EXPECT_DEATH((kept = make(20), open_null(), abort()), "");
}

TEST(Outcome, ThreadsafeDeath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT((kept = make(21), exit(3)), testing::ExitedWithCode(3), "");
}

TEST(Outcome, CapturedOutput) {
    testing::internal::CaptureStdout();
    printf("text\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "text\n");
}

template <int n> struct Registered {
    ~Registered() { last = n; }
    static void use() {
        static Registered used;
        static_cast<void>(used);
        if constexpr (n > 0)
            Registered<n - 1>::use();
    }
    static inline volatile int last = 0;
};

TEST(Outcome, ObjectsUntilTheEnd) {
    Registered<100>::use();
    thread_local std::string in_thread = "short";
    EXPECT_EQ(in_thread, "short");
}

TEST(Outcome, StreamsAndThreads) {
    std::ofstream("/dev/null") << 3.14;
    std::thread([] { EXPECT_TRUE(true); }).join();
}

TEST(Outcome, KeptOnPurpose) {
#ifdef LINKED
    k42mcx_unlisted(1);
    kept = make(22);
    k42mcx_unlisted(0);
#endif
}

} // namespace
