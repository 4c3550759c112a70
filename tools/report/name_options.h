// The options of commands that name sites and show stacks.
#pragma once

#include "tools/report/names.h"

#include <CLI/CLI.hpp>

inline void add_name_options(CLI::App &command, Names::Options &options, const char *where) {
    command
        .add_option("--skip-frames", options.skipped,
                    "Name sites by what called functions, files or modules that match")
        ->type_name("PATTERN")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command.add_flag("--all-frames", options.all_frames,
                     std::string(where) + ", also what calls main and threads' functions");
}
