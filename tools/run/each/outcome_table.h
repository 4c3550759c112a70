// Outcomes for people: those that are alike together, worst first, each with the command that repeats one.
#pragma once

#include "tools/common/symbols.h"
#include "tools/run/each/outcome.h"
#include "tools/run/options.h"

#include <ostream>
#include <string>
#include <vector>

// The command that lets the same allocation fail, in a shell's words.
std::string command_to_repeat(const std::string &stack, const RunOptions &options);

void print_outcomes(std::ostream &out, const std::vector<Outcome> &outcomes, const RunOptions &options,
                    Symbolizer &symbolizer);
