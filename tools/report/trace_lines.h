// Stack traces in summaries: the innermost frames, one a line.
#pragma once

#include "tools/report/trace_match.h"

#include <ostream>

void print_trace(std::ostream &out, Trace trace, Symbolizer &symbolizer);
