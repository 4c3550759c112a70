// Lines "leak:PATTERN", as users of the compilers' leak checker keep them. A process under the checker reads them, too:
// nothing here allocates, or needs the C++ library as it runs, as substr and what is made of it do.
#pragma once

#include <algorithm>
#include <string_view>

// "*" stands for any text, "^" and "$" at the ends for the ends of the text; a pattern without them may match anywhere.
// Only the last star is ever worth another try.
inline bool matches_pattern(std::string_view pattern, std::string_view text) {
    constexpr size_t none = std::string_view::npos;
    const bool begins_anywhere = !pattern.starts_with('^');
    pattern.remove_prefix(begins_anywhere ? 0 : 1);
    const bool ends_anywhere = !pattern.ends_with('$');
    pattern.remove_suffix(ends_anywhere ? 0 : 1);
    size_t at = 0;
    size_t behind_star = begins_anywhere ? 0 : none;
    size_t resume = 0;
    for (size_t i = 0; i < text.size();) {
        if (at == pattern.size() && ends_anywhere)
            return true;
        if (at < pattern.size() && pattern[at] == '*') {
            behind_star = ++at;
            resume = i;
        } else if (at < pattern.size() && pattern[at] == text[i]) {
            ++at;
            ++i;
        } else if (behind_star != none) {
            at = behind_star;
            i = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == none;
}

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
