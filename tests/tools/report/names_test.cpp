#include "tools/report/names.h"

#include "tools/report/trace_lines.h"

#include <gtest/gtest.h>

namespace {

TEST(Names, FitTheWidthThereIs) {
    StackFrame frame{.pc = {},
                     .function = "net::Session::read",
                     .full = {},
                     .file = "/usr/src/net/session.cpp",
                     .line = 12,
                     .times = 3};
    EXPECT_EQ(frame.text(), "net::Session::read × 3 at /usr/src/net/session.cpp:12");
    EXPECT_EQ(frame.text(53), frame.text());
    EXPECT_EQ(frame.text(52), "net::Session::read × 3 at …/src/net/session.cpp:12");
    EXPECT_EQ(frame.text(42), "net::Session::read × 3 at …/session.cpp:12");
    EXPECT_EQ(frame.text(41), "net::Session::… × 3 at …/session.cpp:12");
    EXPECT_EQ(frame.text(1), "net::… × 3 at …/session.cpp:12"); // no word is broken
    frame.function = frame.pc = "/usr/lib/libnet.so.1+0x12";
    frame.file.clear();
    EXPECT_EQ(frame.text(24), "…/libnet.so.1+0x12 × 3");

    const SiteName name{"net::read", "/usr/src/net.cpp:7", {"serve", "main"}, "STD"};
    EXPECT_EQ(name.text(), "net::read at /usr/src/net.cpp:7 < serve < main (STD)");
    EXPECT_EQ(name.fitted(51), "net::read at /usr/src/net.cpp:7 (STD)");
    EXPECT_EQ(name.fitted(36), "net::read at /usr/src/net.cpp:7");
    EXPECT_EQ(name.fitted(30), "net::read at …/src/net.cpp:7");
    EXPECT_EQ(name.fitted(9), "net::read");
    EXPECT_EQ(name.fitted(8), "net::…");
    EXPECT_EQ(width_of("…/ü\xff"), 4u);
    EXPECT_EQ(fit_path("/a/bc/d.c", 8), "…/bc/d.c");
    EXPECT_EQ(fit_path("/a/bc/d.c", 7), "…/d.c");
}

// Modules that are not there have no symbols: what is left are their names.
TEST(Names, GoByTheProgramsOwnCode) {
    const std::string_view pcs[] = {"/lib/libc.so.6+0x1", "/usr/lib/libstdc++.so.6+0x2",
                                    "/no/wrap.so+0x3",    "/no/p+0x4",
                                    "/no/p+0x5",          "/lib/libc.so.6+0x6"};
    Symbolizer symbolizer;
    const Site site{"p+0x1", 0, "STD", pcs};
    EXPECT_EQ(Names(symbolizer).name(site).text(), "/no/wrap.so+0x3 < /no/p+0x4 < /no/p+0x5 (STD)");
    Names names(symbolizer, {{"/wrap.so", "^/no/p+0x9$"}, false});
    EXPECT_EQ(names.name(site).text(), "/no/p+0x4 < /no/p+0x5 (STD)");
    EXPECT_EQ(names.frames(pcs).size(), 5u); // without what called main
    EXPECT_EQ(Names(symbolizer, {{}, true}).frames(pcs).size(), 6u);
    EXPECT_EQ(names.name({"p+0x1", 0, "STD", Trace(pcs).first(2)}).label(), "/lib/libc.so.6+0x1");
    EXPECT_EQ(names.name({"a.c", 7, "STD", pcs}).label(), "a.c:7");
    const std::string_view cut[] = {"/no/p+0x4", cut_mark};
    EXPECT_EQ(names.frames(cut).back().text(), "…");
    EXPECT_EQ(names.name({"p+0x4", 0, "STD", cut}).text(), "/no/p+0x4 (STD)");
    // A summary: with the last function that is not.
    std::ostringstream summary;
    print_trace(summary, pcs, symbolizer);
    print_trace(summary, Trace(pcs).first(2), symbolizer);
    EXPECT_EQ(summary.str(),
              "    /usr/lib/libstdc++.so.6+0x2\n    /no/wrap.so+0x3\n    /no/p+0x4\n    /no/p+0x5\n"
              "    /lib/libc.so.6+0x1\n    /usr/lib/libstdc++.so.6+0x2\n");
}

} // namespace
