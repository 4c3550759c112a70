// What lines of suppressions say, and which texts a pattern matches.
#include "tools/shared/suppression_lines.h"

#include <gtest/gtest.h>

namespace {

TEST(SuppressionLines, MatchAsPatternsDo) {
    for (const auto &[pattern, text, expected] : {std::tuple{"leak", "a_leaky_b", true},
                                                  {"^leak", "a_leak", false},
                                                  {"^a*b$", "a_leaky_b", true},
                                                  {"^a*b$", "a_leaky_bc", false},
                                                  {"*", "", true},
                                                  {"^$", "", true},
                                                  {"^$", "a", false},
                                                  {"a*b*c", "xaxbxbxcx", true},
                                                  {"a*b*c", "xaxcxbx", false},
                                                  {"ab*ab$", "abab_ab", true}})
        EXPECT_EQ(matches_pattern(pattern, text), expected) << pattern << " " << text;
}

TEST(SuppressionLines, AreReadWithoutBlanksAndComments) {
    const auto patterns = [](std::string_view text) {
        std::string all;
        each_suppression(text, [&](std::string_view line, std::string_view pattern) {
            all += pattern.empty() ? "no pattern: <" + std::string(line) + ">;"
                                   : std::string(pattern) + ";";
        });
        return all;
    };
    EXPECT_EQ(patterns("") + patterns("\n\n") + patterns("  \t\r\n # x"), "");
    EXPECT_EQ(patterns("leak:a b\r\n\n\tleak:*$ \n# leak:x\nleak:last"), "a b;*$;last;");
    EXPECT_EQ(patterns("leak:\nrace:a \n l"),
              "no pattern: <leak:>;no pattern: <race:a >;no pattern: < l>;");
}

} // namespace
