#include "tools/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>

namespace {

constexpr int usage_error = 2;

// Of the options that take a number, all take whole ones.
std::string failure(const CLI::App *, const CLI::Error &error) {
    std::string text = error.what();
    static const std::string unclear = "Could not convert: ";
    if (text.starts_with(unclear))
        text = text.substr(unclear.size()) + " is no whole number, or out of range";
    return "k42mc: " + text + "\nRun with --help for more information.\n";
}

int run_command(std::vector<std::string> words) {
    CLI::App app("Finds memory and descriptor bugs of programs while they run.", "k42mc");
    app.set_version_flag("--version", "k42mc " K42MC_VERSION);
    app.require_subcommand(1);
    app.failure_message(failure);
    add_run(app, words);
    for (const auto add : {add_report, add_watch, add_diff, add_symbolize})
        add(app);
    std::ranges::reverse(words); // as the parser wants them
    try {
        app.parse(std::move(words));
    } catch (const CLI::RuntimeError &error) {
        return error.get_exit_code();
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : usage_error;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) try {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i)
        words.emplace_back(argv[i]);
    return run_command(std::move(words));
} catch (const std::exception &error) {
    std::fprintf(stderr, "k42mc: %s\n", error.what());
    return 1;
}
