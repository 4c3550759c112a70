// What became of each process of a run: whether anybody looked after it.
#pragma once

#include "tools/report/model.h"
#include "tools/run/report_folder.h"

#include <string>
#include <vector>

struct Verdict {
    std::string process; // "server.812"
    std::string reason;  // why it was not checked; empty for one that was
    bool is_told = true; // by its own report
};

// Of those that have a report, and of those that left none. Whether programs that others start were to be checked.
std::vector<Verdict> verdicts_on(const Report &report, const std::vector<SilentProcess> &silent,
                                 bool follows);

// Of a program's file, as the shell finds it: why the loader would not let the shim in. Empty where nothing speaks
// against it.
std::string reason_against(const std::string &program);

// Whether it could not even be started with the shim.
bool stands_no_shim(const std::string &program);

// A line for each, for a file.
std::string list_of(const std::vector<Verdict> &verdicts);
