// Findings as SARIF 2.1.0, which code hosts, editors and dashboards read.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/findings.h"
#include "tools/report/json_writer.h"

#include <ostream>
#include <string>

// Names of source files below the root, "/home/me/project", are given from there. Fingerprints stay the same when lines
// move, or the program is built anew.
void put_sarif(const Put &put, const Findings &findings, const std::string &root,
               Symbolizer &symbolizer);

// The root is that of the repository around the current folder, or else that folder.
void print_sarif(std::ostream &out, const Findings &findings, Symbolizer &symbolizer);
