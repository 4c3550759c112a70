// What a run has found, in the files that were asked for beside the summary.
#pragma once

#include "tools/report/findings.h"
#include "tools/run/options.h"

// Throws std::runtime_error where one cannot be written.
void write_forms(const RunOptions &options, const Report &report, const Findings &findings,
                 Symbolizer &symbolizer);
