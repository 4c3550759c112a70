#include "tools/report/holder_lines.h"

#include "tools/common/counted.h"

std::string readable_root(std::string_view root) {
    const size_t open = root.find('`');
    const size_t close = root.rfind('`');
    if (open == close)
        return std::string(root);
    const std::string_view name = root.substr(open + 1, close - open - 1);
    return std::string(root.substr(0, open + 1)) + demangled(std::string(name)) +
           std::string(root.substr(close));
}

std::string describe(std::string_view root, const Counter &held) {
    return std::string(root) + ": " + counted(held.bytes, "byte") + " in " +
           counted(held.blocks, "block");
}

std::vector<std::string> describe_path(const HeldBy &held_by, const Report &report, Names &names) {
    std::vector<std::string> lines;
    const size_t count = held_by.path.size();
    for (size_t i = 0; i < count; ++i) {
        const HeldLink &link = held_by.path[i];
        if (i == count / 2 && held_by.left_out != 0)
            lines.push_back("... " + counted(held_by.left_out, "more block") + " ...");
        std::string line = link.site ? counted(link.size, "byte") + " from " +
                                           names.name(report.site(*link.site)).text()
                                     : "a block that was released meanwhile";
        if (i + 1 < count && link.site)
            line += ", from byte " + std::to_string(link.offset) + " on";
        lines.push_back(std::move(line));
    }
    return lines;
}
