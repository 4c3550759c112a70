// Expectations about parts of a text, which show all of it when they fail.
#pragma once

#include <gtest/gtest.h>
#include <string>

inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}
inline bool starts_with(const std::string &text, const std::string &start) {
    return text.starts_with(start);
}
inline bool ends_with(const std::string &text, const std::string &end) {
    return text.ends_with(end);
}

#define EXPECT_CONTAINS(text, part) EXPECT_PRED2(contains, text, part)
#define EXPECT_STARTS(text, start)  EXPECT_PRED2(starts_with, text, start)
#define EXPECT_ENDS(text, end)      EXPECT_PRED2(ends_with, text, end)
