// Which texts a suppression matches.
#include "tools/run/suppressions.h"

#include <gtest/gtest.h>

namespace {

TEST(Suppressions, MatchAsPatternsDo) {
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

} // namespace
