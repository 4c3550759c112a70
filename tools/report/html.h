// The report as a page: one file, without anything from elsewhere.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <ostream>

void print_html(std::ostream &out, const Report &report, Order order, Symbolizer &symbolizer);
