// The report as a page: one file, without anything from elsewhere.
#pragma once

#include "tools/report/model.h"
#include "tools/report/names.h"

#include <ostream>

void print_html(std::ostream &out, const Report &report, Order order, Names &names);
