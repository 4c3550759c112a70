#include "tools/report/block_line.h"

#include <algorithm>

namespace {

constexpr std::string_view released = "WF";

// Takes the part behind the last colon off a text.
std::string_view take_last(std::string_view &text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return {};
    const std::string_view part = text.substr(colon + 1);
    text = text.substr(0, colon);
    return part;
}

// From the right, as files may have colons in their names.
bool take_block(std::string_view &text, BlockLine &line, bool has_cycles) {
    if (has_cycles && !parse_number(take_last(text), line.cycles))
        return false;
    if (!parse_number(take_last(text), line.size))
        return false;
    const std::string_view address = take_last(text);
    return address.starts_with("0x") && parse_number(address.substr(2), line.address, 16);
}

bool take_site(std::string_view text, BlockLine &line) {
    line.site.type = take_last(text);
    line.what = take_last(text);
    line.site.file = text;
    return parse_number(take_last(line.site.file), line.site.line) && !line.site.file.empty();
}

std::optional<BlockLine> parse(std::string_view text, bool has_cycles) {
    BlockLine line;
    if (!take_block(text, line, has_cycles) || !take_site(text, line))
        return {};
    constexpr std::string_view known[] = {"LK", "WO", "WU", released};
    if (std::ranges::count(known, line.what) == 0 || (line.what == released) == has_cycles)
        return {};
    return line;
}

} // namespace

std::optional<BlockLine> parse_block_line(std::string_view text) {
    const std::optional<BlockLine> line = parse(text, true);
    return line ? line : parse(text, false);
}
