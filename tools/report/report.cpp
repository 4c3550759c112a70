#include "tools/commands.h"
#include "tools/common/printable.h"
#include "tools/report/diff.h"
#include "tools/report/html.h"
#include "tools/report/machine.h"
#include "tools/report/name_options.h"
#include "tools/report/pprof.h"
#include "tools/report/reader.h"
#include "tools/report/sarif.h"
#include "tools/report/symbolize.h"
#include "tools/report/table.h"
#include "tools/report/trace_match.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr const char *examples = R"(Examples:
  k42mc report reports/                     what is held, most bytes first
  k42mc report --sort growth --html r.html server.MC.261125120000.txt
  k42mc report --folded reports/ | flamegraph.pl > held.svg)";

struct Options {
    std::vector<std::string> paths;
    Order order = Order::bytes;
    size_t top = 20;
    bool lost = false;
    std::string html, sarif, pprof;
    Names::Options names;
    bool json = false;
    bool csv = false;
    bool folded = false;
};

const std::vector<std::pair<std::string, Order>> orders = {
    {"bytes", Order::bytes},         {"growth", Order::growth},
    {"blocks", Order::blocks},       {"age", Order::age},
    {"peak", Order::peak},           {"allocations", Order::allocations},
    {"allocated", Order::allocated}, {"temporary", Order::temporary}};

// Makes of a word the number that stands for it, as the parser takes it.
std::string take_order(std::string &word) {
    std::string known;
    for (const auto &[name, order] : orders) {
        if (name == word) {
            word = std::to_string(static_cast<int>(order));
            return {};
        }
        known += (known.empty() ? "" : ", ") + name;
    }
    return word + " is none of: " + known;
}

void show_progress(uint64_t done, uint64_t all) {
    constexpr uint64_t long_work = 64 << 20;
    constexpr uint64_t width = 40;
    if (all < long_work)
        return;
    const uint64_t full = std::min(done, all) * width / all; // pipes have no size
    std::cerr << "\r[" << std::string(full, '#') << std::string(width - full, ' ') << "] "
              << (done >= all ? "\r\033[K" : "") << std::flush;
}

Report read(const std::vector<std::string> &paths) {
    try {
        Report report = read_reports(paths, isatty(STDERR_FILENO) != 0 ? show_progress : Progress());
        if (report.processes.empty() && report.problems.empty())
            report.problems.push_back({paths.front(), 0, "no reports"});
        return report;
    } catch (const std::exception &error) {
        std::cerr << "k42mc: " << printable(error.what()) << '\n';
        throw CLI::RuntimeError(1);
    }
}

void tell_problems(const Report &report) {
    for (const Problem &problem : report.problems) {
        const std::string line = problem.line != 0 ? ":" + std::to_string(problem.line) : "";
        std::cerr << printable(problem.file) << line << ": " << printable(problem.text) << '\n';
    }
    if (!report.problems.empty())
        throw CLI::RuntimeError(1);
}

[[noreturn]] void fail(const std::string &path) {
    const int error = errno;
    std::cerr << "k42mc: " << printable(path) << ": "
              << (error == EINVAL ? "neither a file nor a pipe" : strerror(error)) << '\n';
    throw CLI::RuntimeError(1);
}

// What goes elsewhere is for programs, and people with wide windows.
size_t terminal_width() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : any_width;
}

template <class Print> void write_file(const std::string &path, Print print) {
    std::ofstream file(path);
    print(file);
    file.close();
    if (!file)
        fail(path);
    std::cout << "wrote " << printable(path) << '\n';
}

void finish_output() {
    if (std::cout.flush())
        return;
    std::cerr << "k42mc: not all could be written\n";
    throw CLI::RuntimeError(1);
}

void report(const Options &options) {
    Report report = read(options.paths);
    Symbolizer symbolizer;
    heed_own_suppressions(report, symbolizer);
    Names names(symbolizer, options.names);
    if (options.json)
        put_json([](std::string_view piece) { std::cout << piece; }, report, options.order, names);
    else if (options.csv)
        print_csv(std::cout, report, options.order, names);
    else if (options.folded)
        print_folded(std::cout, report, names);
    else if (!options.html.empty())
        write_file(options.html,
                   [&](std::ostream &file) { print_html(file, report, options.order, names); });
    else if (!options.sarif.empty())
        write_file(options.sarif, [&](std::ostream &file) {
            print_sarif(file, Findings(report, LeakCheck::lost, ""), symbolizer);
        });
    else if (!options.pprof.empty())
        write_file(options.pprof, [&](std::ostream &file) { print_pprof(file, report, symbolizer); });
    else
        print_table(std::cout, report,
                    {options.order, options.top, isatty(STDOUT_FILENO) != 0 && !getenv("NO_COLOR"),
                     options.lost, terminal_width()},
                    names);
    finish_output();
    tell_problems(report);
}

void diff(const std::string &before, const std::string &after, size_t top) {
    const Report reports[] = {read({before}), read({after})};
    Symbolizer symbolizer;
    Names names(symbolizer);
    print_changes(std::cout, changes_between(reports[0], reports[1]), top, names);
    finish_output();
    for (const Report &report : reports)
        tell_problems(report);
}

void symbolize(const std::string &path) {
    Symbolizer symbolizer;
    if (path.empty() || path == "-") {
        symbolize(std::cin, std::cout, symbolizer);
        finish_output();
        return;
    }
    std::ifstream file(path);
    if (!file)
        fail(path);
    symbolize(file, std::cout, symbolizer);
    finish_output();
}

} // namespace

void add_report(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("report", "Show what reports say");
    command->footer(examples);
    command->add_option("paths", options->paths, "Report files, and folders of them")
        ->type_name("FILE|DIR")
        ->required();
    command
        ->add_option("--sort", options->order,
                     "bytes, growth, blocks, age, peak, allocations, allocated or temporary")
        ->type_name("ORDER")
        ->transform(CLI::Validator(take_order, ""));
    command->add_flag("--lost", options->lost, "In the table, only sites with lost blocks");
    command->add_option("--top", options->top, "Number of sites to show (default 20)")->type_name("N");
    add_name_options(*command, options->names, "In the table");
    CLI::Option *const forms[] = {
        command->add_option("--html", options->html, "Write a page to look at and click through")
            ->type_name("FILE"),
        command->add_option("--sarif", options->sarif, "What is wrong, for code hosts and editors")
            ->type_name("FILE"),
        command->add_option("--pprof", options->pprof, "A profile, for what collects and shows such")
            ->type_name("FILE"),
        command->add_flag("--json", options->json, "All of it as JSON"),
        command->add_flag("--csv", options->csv, "The sites as comma-separated values"),
        command->add_flag("--folded", options->folded, "Stack traces and bytes, for flame graph tools")};
    for (CLI::Option *form : forms)
        for (CLI::Option *other : forms)
            if (form != other)
                form->excludes(other);
    command->callback([options] { report(*options); });
}

void add_diff(CLI::App &app) {
    struct Arguments {
        std::string before;
        std::string after;
        size_t top = 20;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = app.add_subcommand("diff", "Show what grew between two reports");
    command->add_option("before", arguments->before)->type_name("FILE|DIR")->required();
    command->add_option("after", arguments->after)->type_name("FILE|DIR")->required();
    command->add_option("--top", arguments->top, "Number of sites to show (default 20)")->type_name("N");
    command->callback([arguments] { diff(arguments->before, arguments->after, arguments->top); });
}

void add_symbolize(CLI::App &app) {
    const auto path = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand(
        "symbolize", "Copy text, with function and line added to each line of a stack trace");
    command->add_option("file", *path, "A file (default: standard input)")->type_name("FILE");
    command->callback([path] { symbolize(*path); });
}
