#include "tools/commands.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

int main(int argc, char **argv) try {
    CLI::App app("Finds memory and descriptor bugs of programs while they run.", "k42mc");
    app.require_subcommand(1);
    for (const auto add : {add_run, add_report, add_diff, add_symbolize})
        add(app);
    CLI11_PARSE(app, argc, argv);
} catch (const std::exception &error) {
    std::fprintf(stderr, "k42mc: %s\n", error.what());
    return 1;
}
