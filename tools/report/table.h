// The report for people at a terminal.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <ostream>

struct TableStyle {
    Order order = Order::bytes;
    size_t top = 20;
    bool colour = false;
    bool only_lost = false;
};

void print_table(std::ostream &out, const Report &report, const TableStyle &style,
                 Symbolizer &symbolizer);

// Bytes from cycle to cycle, a character for each.
std::string sparkline(std::span<const Point> bytes, uint32_t cycles);
