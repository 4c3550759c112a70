#include "tools/report/columns.h"

#include "tools/common/counted.h"
#include "tools/common/fit.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t gap = 2;

std::string signed_number(int64_t number) {
    return (number < 0 ? "" : "+") + std::to_string(number);
}

std::string to_the_right(std::string_view text, const Column &column) {
    return std::string(column.width() + gap - width_of(text), ' ').append(text);
}

} // namespace

size_t Column::width() const {
    size_t widest = width_of(heading);
    for (const std::string &cell : cells)
        widest = std::max(widest, width_of(cell));
    return widest;
}

std::vector<Column> columns_of(const Histories &histories, std::span<const SiteHistory> sites,
                               Order order, size_t width) {
    constexpr size_t wide = 120;
    constexpr uint32_t wide_line = 24, narrow_line = 8;
    std::vector<Column> columns;
    const auto add = [&](const char *heading, const auto &text) {
        Column &column = columns.emplace_back(Column{heading});
        for (const SiteHistory &site : sites)
            column.cells.push_back(text(site));
    };
    const auto number = [](uint64_t value) { return std::to_string(value); };
    add("BYTES", [&](const SiteHistory &site) { return number(site.held.bytes); });
    add("BLOCKS", [&](const SiteHistory &site) { return number(site.held.blocks); });
    add("AGE", [&](const SiteHistory &site) { return number(site.oldest); });
    if (histories.were_searched())
        add("LOST", [&](const SiteHistory &site) { return number(site.lost.bytes); });
    if (order == Order::peak)
        add("PEAK", [&](const SiteHistory &site) { return number(site.peak); });
    if (is_by_counts(order)) {
        add("ALLOCATIONS", [&](const SiteHistory &site) { return number(site.allocated.blocks); });
        add(order == Order::temporary ? "TEMPORARY" : "ALLOCATED", [&](const SiteHistory &site) {
            return number(order == Order::temporary ? site.temporary.blocks : site.allocated.bytes);
        });
    }
    if (histories.cycles() < 2)
        return columns;
    add("GROWTH", [&](const SiteHistory &site) { return signed_number(site.growth); });
    const uint32_t room = width == any_width || width >= wide ? wide_line : narrow_line;
    add("", [&](const SiteHistory &site) { return sparkline(site, histories.cycles(), room); });
    return columns;
}

std::string amount_of(const SiteHistory &site, Order order) {
    if (!is_by_counts(order))
        return counted(site.held.bytes, "byte") + " in " + counted(site.held.blocks, "block");
    return counted(site.allocated.blocks, "allocation") + " of " +
           counted(site.allocated.bytes, "byte") + ", " + std::to_string(site.temporary.blocks) +
           " of them temporary,";
}

std::string heading_of(std::span<const Column> columns) {
    std::string line;
    for (const Column &column : columns)
        line += to_the_right(column.heading, column);
    return line + std::string(gap, ' ');
}

std::string row_of(std::span<const Column> columns, size_t row) {
    std::string line;
    for (const Column &column : columns)
        line += to_the_right(column.cells[row], column);
    return line + std::string(gap, ' ');
}

std::string sparkline(const SiteHistory &site, uint32_t cycles, uint32_t room) {
    constexpr uint32_t most = 64;
    static constexpr const char *levels[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const uint32_t width = std::min({cycles, room, most});
    // Where there are more cycles than room, the highest of those that share a character.
    std::array<uint64_t, most> columns{};
    uint64_t highest = 1;
    site.each_cycle(cycles, [&](uint32_t cycle, uint64_t bytes) {
        // The last column that begins at the cycle or before.
        const uint64_t column = ((cycle + uint64_t{1}) * width - 1) / cycles;
        columns[column] = std::max(columns[column], bytes);
        highest = std::max(highest, bytes);
    });
    std::string text;
    for (uint32_t i = 0; i < width; ++i) {
        const double share = static_cast<double>(columns[i]) / static_cast<double>(highest);
        text += levels[static_cast<size_t>(share * 8 + (share > 0 ? 0.999 : 0))];
    }
    return text;
}
