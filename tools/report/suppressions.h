// Known leaks that a summary leaves out.
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

// Throws std::runtime_error when the file cannot be read or a line is none of these.
std::vector<Suppression> read_suppressions(const std::string &path);

// Of a program's own, which is no user's to mend: what is none of these is passed over.
std::vector<Suppression> suppressions_in(std::string_view text);
