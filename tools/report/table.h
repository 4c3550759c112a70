// The report for people at a terminal.
#pragma once

#include "tools/report/model.h"
#include "tools/report/names.h"

#include <ostream>

struct TableStyle {
    Order order = Order::bytes;
    size_t top = 20;
    bool colour = false;
    bool only_lost = false;
    size_t width = any_width; // of a line, in characters
};

void print_table(std::ostream &out, const Report &report, const TableStyle &style, Names &names);
