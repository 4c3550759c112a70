// Report files, text or lines of JSON, into the model. What cannot be read is left out, and a problem of
// the report's; everything else is taken.
#pragma once

#include "tools/report/lines.h"
#include "tools/report/model.h"

#include <functional>
#include <span>

// The report that the library prints, by itself or among other output.
void read_text(Report &report, const std::string &name, Lines &lines);

// What k42mcx_report_json and k42mcx_fd_report_json write.
void read_json(Report &report, const std::string &name, Lines &lines);

// Bytes read, of how many.
using Progress = std::function<void(uint64_t done, uint64_t all)>;

// Files, and all reports in folders; of the two files of one process under `k42mc run`, the one that
// says more. Throws std::runtime_error for a file that cannot be read.
Report read_reports(std::span<const std::string> paths, const Progress &progress = {});
