#include "tools/run/suppressions.h"

#include <fstream>
#include <stdexcept>

namespace {

// "*" and letters over the whole text. Only the last star is ever worth another try.
bool matches_whole(std::string_view pattern, std::string_view text) {
    size_t at = 0;
    size_t star = std::string_view::npos;
    size_t resume = 0;
    for (size_t i = 0; i < text.size();) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = at++;
            resume = i;
        } else if (at < pattern.size() && pattern[at] == text[i]) {
            ++at;
            ++i;
        } else if (star != std::string_view::npos) {
            at = star + 1;
            i = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

std::string_view trimmed(std::string_view line) {
    constexpr const char *blanks = " \t\r";
    const size_t first = line.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

} // namespace

bool matches_pattern(std::string_view pattern, std::string_view text) {
    std::string whole(pattern);
    if (!whole.empty() && whole.front() == '^')
        whole.erase(0, 1);
    else
        whole.insert(0, 1, '*');
    if (!whole.empty() && whole.back() == '$')
        whole.pop_back();
    else
        whole.push_back('*');
    return matches_whole(whole, text);
}

std::vector<Suppression> read_suppressions(const std::string &path) {
    constexpr std::string_view kind = "leak:";
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::vector<Suppression> suppressions;
    for (std::string line; std::getline(file, line);) {
        const std::string_view text = trimmed(line);
        if (text.empty() || text.front() == '#')
            continue;
        if (!text.starts_with(kind) || text.size() == kind.size())
            throw std::runtime_error(std::string(path).append(": no suppression: ").append(line));
        suppressions.push_back({std::string(text.substr(kind.size()))});
    }
    return suppressions;
}
