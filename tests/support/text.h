// Texts: where tests get them from, and expectations about parts, which show all when they fail.
#pragma once

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

inline std::string bytes(const void *at, size_t size) {
    return {static_cast<const char *>(at), size};
}

inline std::string contents(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}
inline bool starts_with(const std::string &text, const std::string &start) {
    return text.starts_with(start);
}
inline bool ends_with(const std::string &text, const std::string &end) {
    return text.ends_with(end);
}

// The line that starts there.
inline std::string line_at(const std::string &text, size_t start) {
    return text.substr(start, text.find('\n', start) - start);
}

#define EXPECT_CONTAINS(text, part) EXPECT_PRED2(contains, text, part)
#define EXPECT_STARTS(text, start)  EXPECT_PRED2(starts_with, text, start)
#define EXPECT_ENDS(text, end)      EXPECT_PRED2(ends_with, text, end)
