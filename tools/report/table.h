// The report for people at a terminal.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <ostream>

struct TableStyle {
    Order order = Order::bytes;
    size_t top = 20;
    bool colour = false;
};

void print_table(std::ostream &out, const Report &report, const TableStyle &style,
                 Symbolizer &symbolizer);

// "net.c:14 (STD)"; where the report has no line, the functions that led to the call.
std::string name_of(const Place &place, Symbolizer &symbolizer);

// Its growth from cycle to cycle, a character for each.
std::string sparkline(const std::vector<uint64_t> &series);
