// The report for other programs.
#pragma once

#include "tools/report/json_writer.h"
#include "tools/report/model.h"
#include "tools/report/names.h"

#include <ostream>

// All there is, with functions and lines, as one object.
void put_json(const Put &put, const Report &report, Order order, Names &names);

// The sites, a line each, under a line of names. No field is a formula to a spreadsheet.
void print_csv(std::ostream &out, const Report &report, Order order, Names &names);

// "main;serve;parse 4096" for each site: stack traces from the outside in and the bytes that they hold.
void print_folded(std::ostream &out, const Report &report, Names &names);
