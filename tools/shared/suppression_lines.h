// Lines "leak:PATTERN", as users of the compilers' leak checker keep them. A process under the checker reads them, too:
// nothing here allocates, or needs the C++ library as it runs, as substr and what is made of it do.
#pragma once

#include "tools/shared/pattern.h"

#include <algorithm>
#include <string_view>

inline std::string_view without_blanks(std::string_view line) {
    constexpr const char *blanks = " \t\r";
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    line.remove_suffix(line.size() - (line.find_last_not_of(blanks) + 1)); // 0 for none
    return line;
}

// Calls action with each line but empty ones and comments, and with its pattern, which is empty where it has none.
template <class Action> void each_suppression(std::string_view text, Action action) {
    constexpr std::string_view kind = "leak:";
    while (!text.empty()) {
        const std::string_view line(text.data(), std::min(text.find('\n'), text.size()));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        std::string_view pattern = without_blanks(line);
        if (pattern.empty() || pattern.front() == '#')
            continue;
        const bool is_leak =
            std::string_view(pattern.data(), std::min(kind.size(), pattern.size())) == kind;
        pattern.remove_prefix(is_leak ? kind.size() : pattern.size());
        action(line, pattern);
    }
}
