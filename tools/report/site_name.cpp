#include "tools/report/site_name.h"

#include <algorithm>

std::string name_of(const Site &site, Symbolizer &symbolizer) {
    constexpr size_t most_callers = 2;
    const std::string type = " (" + std::string(site.type) + ")";
    if (site.line != 0)
        return std::string(site.file) + ":" + std::to_string(site.line) + type;
    if (site.trace.empty())
        return std::string(site.file) + type;
    std::string name;
    for (const std::string_view pc : site.trace.first(std::min(site.trace.size(), 1 + most_callers))) {
        const SourceFrame &frame = symbolizer.lookup(pc).front();
        const bool innermost = name.empty();
        if (!innermost)
            name += " < ";
        name += frame.function.empty() ? pc : frame.function;
        if (!frame.file.empty() && innermost)
            name += " at " + frame.file + ":" + std::to_string(frame.line);
    }
    return name + type;
}
