// The lines that filters for stack traces are given by.
#pragma once

#include <string_view>

// Whether the checker can make a filter of it: "file:line:LK:type:address:size", as reports have it.
bool is_filter_line(std::string_view line);
