// The subcommands of k42mc. Each adds itself with its options; a callback that ends with an exit status
// of its own throws CLI::RuntimeError.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

// Takes the arguments of the program to run off the words of the command line.
void add_run(CLI::App &app, std::vector<std::string> &words);

void add_report(CLI::App &app);
void add_diff(CLI::App &app);
void add_symbolize(CLI::App &app);
void add_watch(CLI::App &app);
