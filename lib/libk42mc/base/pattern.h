// Patterns of functions, files and modules, as users of the compilers' leak checker write them. Nothing here allocates, or
// needs the C++ library as it runs, as substr and what is made of it do.
#pragma once

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
