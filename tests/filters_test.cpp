// Backtrace filters: which texts are filters, and which allocations they decide.
#include "checker.h"
#include "failing_malloc.h"

#include <cstring>
#include <vector>

namespace {

using Filters = WithChecker;

struct Answer {
    int result;
    std::string said;
};

template <class Call> Answer give(Call call, std::string text) {
    Answer answer{};
    answer.said = captured_stderr([&] { answer.result = call(text.data()); });
    return answer;
}

// Whether an allocation of this site, size and type gets a trace.
bool traced(const char *file, int line, size_t size, int type = MC_STD) {
    void *block = k42mcx_alloc(file, line, type, 1, size);
    const bool result = has_backtrace(block);
    k42mcx_free(file, line, type, block);
    return result;
}

TEST_F(Filters, TakesALineOfAReport) {
    void *block = k42MC_malloc("net.c", 42, 100);
    const std::string text = report(1);
    const size_t begin = text.find("net.c:42:LK");
    const std::string line = text.substr(begin, text.find('\n', begin) - begin);
    k42MC_free("net.c", 43, block);

    EXPECT_EQ(give(MCBTFilterOut, line).result, 0);
    EXPECT_FALSE(traced("net.c", 42, 100));
    EXPECT_FALSE(traced(std::string("net.c").c_str(), 42, 100)) << "names are compared, not pointers";
    EXPECT_TRUE(traced("net.c", 42, 101));
    EXPECT_TRUE(traced("net.c", 41, 100));
    EXPECT_TRUE(traced("./net.c", 42, 100));
    EXPECT_TRUE(traced("net.c", 42, 100, MC_VAR));
    const Answer again = give(MCBTFilterOut, line);
    EXPECT_EQ(again.result, 0);
    EXPECT_EQ(again.said, "MCBTFilterSet: ERROR: filter alredy present\n");

    EXPECT_EQ(give(MCBTFilterIn, line).said, ""); // cancels
    EXPECT_TRUE(traced("net.c", 42, 100));
    EXPECT_EQ(give(MCBTFilterIn, line).result, 0); // nothing to cancel
}

TEST_F(Filters, TurnRoundWithTheDefault) {
    give(MCBTFilterOut, "out.c:1:LK:STD:0x1:5:9");
    captured_stderr([] { MCInit(0, K42MC_BE32(MC_TYPE_BT_OFF)); });
    EXPECT_FALSE(traced("a.c", 1, 5));
    EXPECT_EQ(give(MCBTFilterIn, "a.c:1:LK:STD:0x1:5:9").result, 0);
    EXPECT_EQ(give(MCBTFilterIn, "b.c:1:LK:FIX:0x1:5").result, 0);
    EXPECT_EQ(give(MCBTFilterIn, "c.c:1:LK:STD:0x1:5").result, 0);
    EXPECT_TRUE(traced("a.c", 1, 5));
    EXPECT_TRUE(traced("b.c", 1, 5, MC_FIX));
    EXPECT_FALSE(traced("b.c", 1, 5));
    for (const char *text : {"b.c:1:LK:FIX:0x1:5", "a.c:1:LK:STD:0x1:5"}) // the middle, then the last
        EXPECT_EQ(give(MCBTFilterOut, text).result, 0);
    EXPECT_FALSE(traced("a.c", 1, 5) || traced("b.c", 1, 5, MC_FIX));
    EXPECT_TRUE(traced("c.c", 1, 5));

    // The other list is not consulted, and is still there when the default turns back.
    captured_stderr([] { MCInit(0, K42MC_BE32(MC_TYPE_LKBF)); });
    EXPECT_TRUE(traced("a.c", 1, 5));
    EXPECT_FALSE(traced("out.c", 1, 5));
    MCBTFilterReset();
    EXPECT_TRUE(traced("out.c", 1, 5));
    captured_stderr([] { MCInit(0, K42MC_BE32(MC_TYPE_BT_OFF)); });
    EXPECT_FALSE(traced("c.c", 1, 5));
}

TEST_F(Filters, RefuseMalformedTexts) {
    for (const char *text :
         {"", ":", "a.c", "a.c:1:LK:STD:0x1", "a.c:1:LK:std:0x1:5", "a.c:1:LK:STDX:0x1:5",
          "a.c:1:LK::0x1:5", // an empty field is none, so the rest moves up
          "a.c:1:STD:0x1:5:1"}) {
        const Answer answer = give(MCBTFilterOut, text);
        EXPECT_EQ(answer.result, -1) << text;
        EXPECT_EQ(answer.said, "MCBTFilterSet: ERROR: failed to create filter\n") << text;
    }
    EXPECT_EQ(MCBTFilterSet(nullptr, 1), -1);
    EXPECT_EQ(give(MCBTFilterOut, "a.c::1:::LK:STD:0x1:5:::").result, 0); // separators in a row are one
    EXPECT_FALSE(traced("a.c", 1, 5));
    EXPECT_EQ(give(MCBTFilterOut, "b.c: +12x:LK:STD:0x1: 7kB").result, 0); // numbers as atoi reads them
    EXPECT_FALSE(traced("b.c", 12, 7));
    EXPECT_EQ(give(MCBTFilterOut, "c.c:-3:?:STD:?:junk:and:more").result, 0);
    EXPECT_FALSE(traced("c.c", -3, 0));
    EXPECT_EQ(give(MCBTFilterOut, std::string(10000, 'n') + ":1:LK:STD:0:1").result, 0);
    char kept[] = "d.c:1:LK:STD:0x1:5";
    MCBTFilterOut(kept);
    EXPECT_EQ(std::string(kept, sizeof kept - 1), std::string("d.c\0001\0LK\0STD\0000x1\0005", 18));
}

TEST_F(Filters, ChangeNothingWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    for (const int nth : {1, 2}) {
        char text[] = "a.c:1:LK:STD:0x1:5";
        failing_malloc(nth, false, [&] {
            const std::string said = captured_stderr([&] { EXPECT_EQ(MCBTFilterOut(text), -1); });
            EXPECT_EQ(said, "MCBTFilterSet: ERROR: failed to create filter\n");
        });
    }
    EXPECT_TRUE(traced("a.c", 1, 5));
}

TEST_F(Filters, RefuseWhileTheCheckerIsOff) {
    checker_off();
    EXPECT_EQ(give(MCBTFilterIn, "a.c:1:LK:STD:0x1:5").said,
              "MCBTFilterSet: ERROR: MC not currently initialized\n");
    EXPECT_EQ(give(MCBTFilterOut, "a.c:1:LK:STD:0x1:5").result, -1);
    EXPECT_EQ(captured_stderr(MCBTFilterReset),
              "MCBTFilterReset: ERROR: MC not currently initialized\n");
    checker_on();
}

} // namespace
