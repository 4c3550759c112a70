// The subcommands of k42mc. Each adds itself with its options; a callback that ends with an exit status
// of its own throws CLI::RuntimeError.
#pragma once

namespace CLI {
class App;
}

void add_run(CLI::App &app);
void add_report(CLI::App &app);
void add_diff(CLI::App &app);
void add_symbolize(CLI::App &app);
