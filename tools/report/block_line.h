// The lines by which text reports tell of one block.
#pragma once

#include "tools/report/model.h"

#include <charconv>
#include <optional>
#include <string_view>

// "file:line:LK:type:0xADDRESS:size:cycles"; of a block that was written after its release, WF, without cycles.
struct BlockLine {
    std::string_view what; // "LK", "WO", "WU", "WF"
    Site site;
    uint64_t address = 0;
    uint64_t size = 0;
    uint32_t cycles = 0;
};

// Nothing for other lines.
std::optional<BlockLine> parse_block_line(std::string_view text);

// The whole text.
template <class Number> bool parse_number(std::string_view text, Number &number, int base = 10) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}
