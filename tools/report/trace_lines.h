// Stack traces in summaries: the innermost frames of the program's own, one a line, and what they called.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <ostream>

void print_trace(std::ostream &out, Trace trace, Symbolizer &symbolizer);
