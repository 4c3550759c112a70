// Sites in one line.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

// "net.c:14 (STD)"; where the report has no line, the functions that led to the call.
std::string name_of(const Site &site, Symbolizer &symbolizer);
