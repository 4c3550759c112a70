// What is held, as the profile that continuous-profiling servers and their viewers read.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <ostream>

// A gzipped message of the public format, with a sample for each site of each process, as of its last cycle. Addresses
// are those that the files of modules have for calls, so that servers that keep debug information by build id can
// tell functions and lines where this machine cannot.
void print_pprof(std::ostream &out, const Report &report, Symbolizer &symbolizer);
