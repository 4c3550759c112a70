// Files of lines "leak:PATTERN", as users of the compilers' leak checker keep them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Suppression {
    std::string pattern;
    const char *module =
        nullptr;         // only of the frame that allocated, in modules of such a name, by symbols alone
    uint64_t blocks = 0; // that it kept from the summary
    uint64_t bytes = 0;
};

// "*" stands for any text, "^" and "$" at the ends for the ends of the text; a pattern without them may
// match anywhere.
bool matches_pattern(std::string_view pattern, std::string_view text);

// Throws std::runtime_error when the file cannot be read or a line is none of these.
std::vector<Suppression> read_suppressions(const std::string &path);
