// Backtrace filters: which texts are filters, and which allocations they decide.
#include "checker.h"
#include "failing_malloc.h"

namespace {

using Filters = WithChecker;

// Gives a filter, expects an answer, and returns what was said.
std::string give(int (*set)(char *), std::string text, int expected = 0) {
    return captured_stderr([&] { EXPECT_EQ(set(text.data()), expected) << text; });
}

const std::string refused = "MCBTFilterSet: ERROR: failed to create filter\n";

// Whether an allocation of this site, size and type gets a trace.
bool traced(const char *file, int line, size_t size, int type = MC_STD) {
    void *block = k42mcx_alloc(file, line, type, 1, size);
    const bool result = contains(check(block), "\nBacktrace of the allocation:\n");
    k42mcx_free(file, line, type, block);
    return result;
}

TEST_F(Filters, TakesALineOfAReport) {
    void *block = k42MC_malloc("net.c", 42, 100);
    const std::string text = report(1);
    const std::string line = line_at(text, text.find("net.c:42:LK"));
    k42MC_free("net.c", 43, block);

    EXPECT_EQ(give(MCBTFilterOut, line), "");
    EXPECT_FALSE(traced("net.c", 42, 100));
    EXPECT_FALSE(traced(std::string("net.c").c_str(), 42, 100)) << "names are compared, not pointers";
    EXPECT_TRUE(traced("net.c", 42, 101));
    EXPECT_TRUE(traced("net.c", 41, 100));
    EXPECT_TRUE(traced("./net.c", 42, 100));
    EXPECT_TRUE(traced("net.c", 42, 100, MC_VAR));
    EXPECT_EQ(give(MCBTFilterOut, line), "MCBTFilterSet: ERROR: filter alredy present\n");

    EXPECT_EQ(give(MCBTFilterIn, line), ""); // cancels
    EXPECT_TRUE(traced("net.c", 42, 100));
    EXPECT_EQ(give(MCBTFilterIn, line), ""); // nothing to cancel
}

TEST_F(Filters, TurnRoundWithTheDefault) {
    give(MCBTFilterOut, "out.c:1:LK:STD:0x1:5:9");
    checker_on(MC_TYPE_BT_OFF);
    EXPECT_FALSE(traced("a.c", 1, 5));
    for (const char *text : {"a.c:1:LK:STD:0x1:5:9", "b.c:1:LK:FIX:0x1:5", "c.c:1:LK:STD:0x1:5"})
        give(MCBTFilterIn, text);
    EXPECT_TRUE(traced("a.c", 1, 5) && traced("b.c", 1, 5, MC_FIX));
    EXPECT_FALSE(traced("b.c", 1, 5));
    for (const char *text : {"a.c:1:LK:STD:0x1:5", "b.c:1:LK:FIX:0x1:5"}) // the last of three, of two
        give(MCBTFilterOut, text);
    EXPECT_FALSE(traced("a.c", 1, 5) || traced("b.c", 1, 5, MC_FIX));
    EXPECT_TRUE(traced("c.c", 1, 5));

    // The other list is not consulted, and is still there when the default turns back.
    checker_on();
    EXPECT_TRUE(traced("a.c", 1, 5));
    EXPECT_FALSE(traced("out.c", 1, 5));
    MCBTFilterReset();
    EXPECT_TRUE(traced("out.c", 1, 5));
    checker_on(MC_TYPE_BT_OFF);
    EXPECT_FALSE(traced("c.c", 1, 5));
}

TEST_F(Filters, RefuseMalformedTexts) {
    for (const char *text :
         {"", ":", "a.c", "a.c:1:LK:STD:0x1", "a.c:1:LK:std:0x1:5", "a.c:1:LK:STDX:0x1:5",
          "a.c:1:LK::0x1:5", // an empty field is none, so the rest moves up
          "a.c:1:STD:0x1:5:1"})
        EXPECT_EQ(give(MCBTFilterOut, text, -1), refused) << text;
    EXPECT_EQ(MCBTFilterSet(nullptr, 1), -1);
    give(MCBTFilterOut, "a.c::1:::LK:STD:0x1:5:::"); // separators in a row are one
    EXPECT_FALSE(traced("a.c", 1, 5));
    give(MCBTFilterOut, "b.c: +12x:LK:STD:0x1: 7kB"); // numbers as atoi reads them
    EXPECT_FALSE(traced("b.c", 12, 7));
    give(MCBTFilterOut, "c.c:-3:?:STD:?:junk:and:more");
    EXPECT_FALSE(traced("c.c", -3, 0));
    give(MCBTFilterOut, std::string(10000, 'n') + ":1:LK:STD:0:1");
    char kept[] = "d.c:1:LK:STD:0x1:5";
    MCBTFilterOut(kept);
    EXPECT_EQ(std::string(kept, sizeof kept - 1), std::string("d.c\0001\0LK\0STD\0000x1\0005", 18));
}

TEST_F(Filters, ChangeNothingWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    for (const int nth : {1, 2}) {
        char text[] = "a.c:1:LK:STD:0x1:5";
        const auto set = [&] { EXPECT_EQ(MCBTFilterOut(text), -1); };
        EXPECT_EQ(captured_stderr([&] { failing_malloc(nth, false, set); }), refused);
    }
    EXPECT_TRUE(traced("a.c", 1, 5));
}

} // namespace
