#include "tools/run/filter_line.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The checker passes over empty fields.
std::vector<std::string> fields_of(std::string_view line) {
    std::istringstream rest{std::string(line)};
    std::vector<std::string> fields;
    for (std::string field; std::getline(rest, field, ':');)
        if (!field.empty())
            fields.push_back(field);
    return fields;
}

} // namespace

bool is_filter_line(std::string_view line) {
    constexpr std::array types = {"STD", "SYS", "FIX", "VAR", "SHM"};
    constexpr size_t type = 3;
    constexpr size_t least_fields = 6;
    if (line.find('\n') != std::string_view::npos)
        return false;
    const std::vector<std::string> fields = fields_of(line);
    return fields.size() >= least_fields && std::ranges::find(types, fields[type]) != types.end();
}
