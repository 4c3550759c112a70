#include "tools/commands.h"
#include "tools/common/counted.h"
#include "tools/report/reader.h"
#include "tools/run/findings.h"
#include "tools/run/launch.h"
#include "tools/run/report_folder.h"
#include "tools/run/signals.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <iostream>
#include <iterator>
#include <set>
#include <sys/wait.h>

namespace {

struct Options {
    std::string output;
    unsigned every = 0;
    std::string signal;
    unsigned limit = 1;
    bool no_backtrace = false;
    std::vector<std::string> filters;
    bool verify = false;
    bool fds = false;
    bool follow = true;
    std::string suppressions;
    int error_exitcode = 0;
    std::vector<std::string> command;
};

constexpr const char *examples = R"(Examples:
  k42mc run -- ls -l
  k42mc run --verify --error-exitcode 99 --suppress known.txt -- ./server -p 80
  k42mc run --output /tmp/r --every 60 --limit 3 -- python3 app.py)";

// Who allocates what any process holds to its end: buffers of streams, the loader's records.
struct Holder {
    const char *pattern, *module;
};
constexpr Holder always_left[] = {{"^_IO_file_doallocate$", "/libc.so."}, {"ld-linux", "ld-linux"}};

int signal_number(const std::string &name) {
    const std::string bare = name.starts_with("SIG") ? name.substr(3) : name;
    for (int number = 1; number < NSIG; ++number)
        if (const char *known = sigabbrev_np(number); known != nullptr && bare == known)
            return number;
    try {
        return std::stoi(bare);
    } catch (const std::exception &) {
        throw CLI::ValidationError("--signal", "no signal: " + name);
    }
}

std::vector<Setting> environment(const Options &options, const ReportFolder &folder) {
    std::string preload = preload_path(options.command.front());
    if (const char *others = getenv("LD_PRELOAD"); others != nullptr && *others != '\0')
        preload += std::string(":") + others;
    std::vector<Setting> settings = {{"LD_PRELOAD", preload},
                                     {"K42MC_RUN_LIMIT", std::to_string(options.limit)},
                                     {"K42MC_RUN_EVERY", std::to_string(options.every)},
                                     {"K42MC_RUN_BACKTRACE", options.no_backtrace ? "0" : "1"},
                                     {"K42MC_RUN_VERIFY", options.verify ? "1" : "0"},
                                     {"K42MC_RUN_FDS", options.fds ? "1" : "0"},
                                     {"K42MC_RUN_FOLLOW", options.follow ? "1" : "0"}};
    std::ranges::move(folder.settings(), std::back_inserter(settings));
    if (!options.signal.empty())
        settings.push_back({"K42MC_RUN_SIGNAL", std::to_string(signal_number(options.signal))});
    std::string filters;
    for (const std::string &line : options.filters)
        filters += line + '\n';
    settings.push_back({"K42MC_RUN_FILTERS", filters});
    return settings;
}

// What a full disk, or the end of a process in the midst of it, has left of reports is no result. Returns
// whether all of them are whole, and says what is not.
bool are_whole(const Report &report, const ReportFolder &folder) {
    std::set<std::string> damaged;
    for (const Problem &problem : report.problems)
        damaged.insert(problem.file);
    if (report.processes.empty())
        std::cerr << "k42mc: no process got as far as its report\n";
    else if (!damaged.empty())
        std::cerr << "k42mc: incomplete: " << counted(damaged.size(), "report") << '\n';
    const std::string obstacle = folder.obstacle();
    if (!obstacle.empty())
        std::cerr << "k42mc: nothing can be written to " << folder.path() << ": " << obstacle << '\n';
    return !report.processes.empty() && damaged.empty() && obstacle.empty();
}

// Returns whether anything is left to complain about. A program that failed says so by itself; one that ended
// well is none the less not clean where nobody could look.
bool summarize(const Options &options, const ReportFolder &folder, bool ended_well) {
    std::vector<Suppression> suppressions;
    if (!options.suppressions.empty())
        suppressions = read_suppressions(options.suppressions);
    const size_t own = suppressions.size();
    for (const Holder &holder : always_left)
        suppressions.push_back({holder.pattern, holder.module});
    Symbolizer symbolizer;
    const Report report = read_reports(folder.collect_reports());
    Findings findings(report);
    findings.suppress(suppressions, symbolizer);
    if (!report.processes.empty())
        findings.print(std::cerr, symbolizer);
    const bool whole = are_whole(report, folder);
    for (size_t i = 0; i < own; ++i) {
        const Suppression &suppression = suppressions[i];
        std::cerr << (suppression.blocks == 0 ? "k42mc: unused suppression: leak:"
                                              : "k42mc: suppressed: leak:")
                  << suppression.pattern;
        if (suppression.blocks != 0)
            std::cerr << ": " << counted(suppression.blocks, "block") << ", "
                      << counted(suppression.bytes, "byte");
        std::cerr << '\n';
    }
    std::cerr << "k42mc: read more with: k42mc report " << folder.path() << '\n';
    return !findings.empty() || (ended_well && !whole);
}

// Ends as the program did.
[[noreturn]] void pass_on(int status) {
    if (WIFSIGNALED(status))
        end_by(WTERMSIG(status));
    throw CLI::RuntimeError(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void run(const Options &options) {
    bool found = false;
    int status = 0;
    try {
        const ReportFolder folder(options.output);
        status = launch(options.command, environment(options, folder));
        found = summarize(options, folder, status == 0);
    } catch (const std::exception &error) {
        std::cerr << "k42mc run: " << error.what() << '\n';
        throw CLI::RuntimeError(125);
    }
    if (found && options.error_exitcode != 0)
        throw CLI::RuntimeError(options.error_exitcode);
    pass_on(status);
}

} // namespace

void add_run(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("run", "Run a program with every block guarded and recorded");
    command->footer(examples);
    command->add_option("--output", options->output, "Folder for reports; else a new one")
        ->type_name("DIR");
    command->add_option("--every", options->every, "Report every so many seconds")->type_name("SECONDS");
    command->add_option("--signal", options->signal, "Report on this signal")->type_name("SIG");
    command->add_option("--limit", options->limit, "Blocks that survived so many reports")
        ->type_name("N");
    command->add_flag("--no-backtrace", options->no_backtrace, "Record no stack traces");
    command->add_option("--filter", options->filters, "Sites with or without stack traces")
        ->type_name("LINE")
        ->allow_extra_args(false);
    command->add_flag("--verify", options->verify, "Examine the blocks left at exit");
    command->add_flag("--fds", options->fds, "Watch descriptors, too");
    command->add_flag("--follow,!--no-follow", options->follow, "Check programs it starts (default)");
    command->add_option("--suppress", options->suppressions, "Lines leak:PATTERN of known leaks")
        ->type_name("FILE");
    command
        ->add_option("--error-exitcode", options->error_exitcode, "Exit status when something is found")
        ->type_name("N");
    command->add_option("command", options->command, "The program and its arguments")
        ->type_name("-- PROGRAM [ARGS]")
        ->required();
    command->callback([options] { run(*options); });
}
