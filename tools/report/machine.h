// The report for other programs.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <nlohmann/json_fwd.hpp>
#include <ostream>

// All there is, with functions and lines, as one object.
nlohmann::json json_of(const Report &report, Order order, Symbolizer &symbolizer);

// The sites, a line each, under a line of names.
void print_csv(std::ostream &out, const Report &report, Order order, Symbolizer &symbolizer);

// "main;serve;parse 4096" for each site: call chains from the outside in and the bytes that they hold.
void print_folded(std::ostream &out, const Report &report, Symbolizer &symbolizer);
