#include "tools/report/suppressions.h"

#include "tools/shared/suppression_lines.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

std::vector<Suppression> read_suppressions(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    const std::string text{std::istreambuf_iterator(file), {}};
    std::vector<Suppression> suppressions;
    each_suppression(text, [&](std::string_view line, std::string_view pattern) {
        if (pattern.empty())
            throw std::runtime_error(std::string(path).append(": no suppression: ").append(line));
        suppressions.push_back({std::string(pattern)});
    });
    return suppressions;
}

std::vector<Suppression> suppressions_in(std::string_view text) {
    std::vector<Suppression> suppressions;
    each_suppression(text, [&](std::string_view, std::string_view pattern) {
        if (!pattern.empty())
            suppressions.push_back({std::string(pattern)});
    });
    return suppressions;
}
