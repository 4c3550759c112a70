#include "tools/commands.h"
#include "tools/common/counted.h"
#include "tools/report/reader.h"
#include "tools/run/findings.h"
#include "tools/run/launch.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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
constexpr std::initializer_list<const char *> always_left = {"^_IO_file_doallocate$", "ld-linux"};

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

std::string output_folder(const Options &options) {
    namespace fs = std::filesystem;
    if (!options.output.empty()) {
        fs::create_directories(options.output);
        return fs::absolute(options.output);
    }
    const char *temporary = getenv("TMPDIR");
    for (const std::string &parent :
         {fs::current_path().string(), std::string(temporary != nullptr ? temporary : "/tmp")}) {
        std::string folder = parent + "/k42mc-run.XXXXXX";
        if (mkdtemp(folder.data()) != nullptr)
            return folder;
    }
    throw std::runtime_error("no folder for reports can be made");
}

std::vector<Setting> environment(const Options &options, const std::string &folder) {
    std::string preload = lay_out_preload(folder, options.command.front());
    if (const char *others = getenv("LD_PRELOAD"); others != nullptr && *others != '\0')
        preload += std::string(":") + others;
    std::vector<Setting> settings = {{"LD_PRELOAD", preload},
                                     {"K42MC_RUN_OUTPUT", folder},
                                     {"K42MC_RUN_LIMIT", std::to_string(options.limit)},
                                     {"K42MC_RUN_EVERY", std::to_string(options.every)},
                                     {"K42MC_RUN_BACKTRACE", options.no_backtrace ? "0" : "1"},
                                     {"K42MC_RUN_VERIFY", options.verify ? "1" : "0"},
                                     {"K42MC_RUN_FDS", options.fds ? "1" : "0"},
                                     {"K42MC_RUN_FOLLOW", options.follow ? "1" : "0"}};
    if (!options.signal.empty())
        settings.push_back({"K42MC_RUN_SIGNAL", std::to_string(signal_number(options.signal))});
    std::string filters;
    for (const std::string &line : options.filters)
        filters += line + '\n';
    settings.push_back({"K42MC_RUN_FILTERS", filters});
    return settings;
}

// A folder may have those of runs before. Its links to the shims are laid out anew for each.
std::vector<std::string> reports_of_this_run(const std::string &folder) {
    namespace fs = std::filesystem;
    const fs::file_time_type start = fs::last_write_time(folder + "/lib");
    std::vector<std::string> files;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
        const bool report = entry.path().extension() == ".json" && entry.last_write_time() >= start;
        if (report && entry.file_size() != 0)
            files.push_back(entry.path());
    }
    return files;
}

// Of processes that ended without a report, as children of fork do that turn into another program.
void remove_empty_files(const std::string &folder) {
    namespace fs = std::filesystem;
    std::vector<fs::path> empty;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        if (entry.is_regular_file() && entry.file_size() == 0)
            empty.push_back(entry.path());
    for (const fs::path &file : empty)
        fs::remove(file);
}

// Returns whether anything is left to complain about.
bool summarize(const Options &options, const std::string &folder) {
    std::vector<Suppression> suppressions;
    if (!options.suppressions.empty())
        suppressions = read_suppressions(options.suppressions);
    const size_t own = suppressions.size();
    for (const char *pattern : always_left)
        suppressions.push_back({pattern, true});
    Symbolizer symbolizer;
    const Report report = read_reports(reports_of_this_run(folder));
    Findings findings(report);
    findings.suppress(suppressions, symbolizer);
    if (report.processes.empty())
        std::cerr << "k42mc: no process got as far as its report\n";
    else
        findings.print(std::cerr, symbolizer);
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
    std::cerr << "k42mc: read more with: k42mc report " << folder << '\n';
    return !findings.empty();
}

// Ends as the program did.
[[noreturn]] void pass_on(int status) {
    if (WIFSIGNALED(status)) {
        constexpr rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    throw CLI::RuntimeError(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void run(const Options &options) {
    bool found = false;
    int status = 0;
    try {
        const std::string folder = output_folder(options);
        status = launch(options.command, environment(options, folder));
        remove_empty_files(folder);
        found = summarize(options, folder);
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
    command->add_flag("--no-backtrace", options->no_backtrace, "Record no call chains");
    command->add_option("--filter", options->filters, "Sites with or without call chains")
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
