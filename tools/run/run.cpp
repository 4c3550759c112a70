#include "tools/commands.h"
#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/findings.h"
#include "tools/report/reader.h"
#include "tools/run/each/fail_each.h"
#include "tools/run/environment.h"
#include "tools/run/filter_line.h"
#include "tools/run/forms.h"
#include "tools/run/launch.h"
#include "tools/run/report_folder.h"
#include "tools/run/signals.h"
#include "tools/run/verdicts.h"

#include <k42mc/extra.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <climits>
#include <csignal>
#include <cstring>
#include <iostream>
#include <iterator>
#include <set>
#include <span>
#include <sstream>
#include <sys/wait.h>

namespace {

constexpr const char *examples = R"(Examples:
  k42mc run ls -l
  k42mc run --error-exitcode 99 --suppress known.txt ./server -p 80
  k42mc run --output /tmp/r --every 60 --limit 3 -- python3 app.py)";

// Who allocates what any process holds to its end: buffers of streams, the loader's records.
struct Holder {
    const char *pattern, *module;
};
constexpr Holder always_left[] = {{"^_IO_file_doallocate$", "/libc.so."}, {"ld-linux", "ld-linux"}};

// Puts the number in the place of a name or a number. Returns what is wrong with it.
std::string take_signal(std::string &name) {
    const std::string bare = name.starts_with("SIG") ? name.substr(3) : name;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        const char *known = sigabbrev_np(number);
        if ((known == nullptr || bare != known) && bare != std::to_string(number))
            continue;
        name = std::to_string(number);
        return {};
    }
    return "no signal: " + name;
}

std::string fault_of_filter(const std::string &line) {
    return is_filter_line(line) ? "" : "not file:line:LK:type:address:size, as reports have it: " + line;
}

std::string fault_of_quarantine(const std::string &size) {
    constexpr unsigned long long least = 64 << 10;
    const unsigned long long bytes = strtoull(size.c_str(), nullptr, 10);
    return bytes == 0 || bytes >= least ? "" : "too small to keep anything: less than 64K";
}

// Puts the decimal number in the place of any. Returns what is wrong with it.
std::string take_byte(std::string &byte) {
    char *end = nullptr;
    const unsigned long number = strtoul(byte.c_str(), &end, 0);
    if (!isdigit(static_cast<unsigned char>(byte[0])) || *end != '\0' || number > UCHAR_MAX)
        return "no byte: " + byte;
    byte = std::to_string(number);
    return {};
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

void tell_suppressed(std::span<const Suppression> suppressions) {
    for (const Suppression &suppression : suppressions) {
        std::cerr << (suppression.blocks == 0 ? "k42mc: unused suppression: leak:"
                                              : "k42mc: suppressed: leak:")
                  << suppression.pattern;
        if (suppression.blocks != 0)
            std::cerr << ": " << counted(suppression.blocks, "block") << ", "
                      << counted(suppression.bytes, "byte");
        std::cerr << '\n';
    }
}

// "server" of "server.812".
std::string program_of(std::string_view process) {
    return std::string(process.substr(0, process.rfind('.')));
}

bool is_wanted(const RunOptions &options, std::string_view process) {
    const std::string program = program_of(process);
    return (options.only.empty() || std::ranges::count(options.only, program) != 0) &&
           std::ranges::count(options.skip, program) == 0;
}

// Of the program that was named; its number may have been given a second time in another namespace.
const Verdict *find_verdict(const std::vector<Verdict> &verdicts, pid_t process) {
    const std::string end = "." + std::to_string(process);
    const auto found = std::ranges::find_if(
        verdicts, [&](const Verdict &verdict) { return verdict.process.ends_with(end); });
    return found != verdicts.end() ? &*found : nullptr;
}

// Those that their reports do not tell of.
void tell_unchecked(const std::vector<Verdict> &verdicts) {
    constexpr size_t most = 5;
    size_t count = 0;
    for (const Verdict &verdict : verdicts)
        if (!verdict.is_told && count++ < most)
            std::cerr << "k42mc: " << printable(verdict.process) << ": not checked: " << verdict.reason
                      << '\n';
    if (count > most)
        std::cerr << "k42mc: and " << counted(count - most, "more process") << " not checked\n";
}

// What the launcher has to know in the end.
struct Summary {
    bool found = false;   // something to complain about
    bool checked = false; // the program that was named
};

// A program that failed says so by itself; one that ended
// well is none the less not clean where nobody could look.
Summary summarize(const RunOptions &options, std::vector<Suppression> suppressions,
                  const ReportFolder &folder, const Ended &ended) {
    const size_t own = suppressions.size();
    if (options.leak_check == "held")
        for (const Holder &holder : always_left)
            suppressions.push_back({holder.pattern, holder.module});
    Symbolizer symbolizer;
    const RunOutputs outputs = folder.collect();
    Report report = read_reports(outputs.reports);
    const std::vector<Verdict> verdicts = verdicts_on(report, outputs.silent, options.follow);
    const Verdict *const named = find_verdict(verdicts, ended.process);
    std::erase_if(report.processes,
                  [&](const Process &process) { return !is_wanted(options, process.name); });
    Findings findings(report, leak_check_named(options.leak_check),
                      named != nullptr ? std::string_view(named->process) : "");
    findings.suppress(suppressions, symbolizer);
    if (!report.processes.empty()) {
        std::ostringstream text; // in one piece
        findings.print(text, symbolizer);
        std::cerr << text.str();
    }
    if (named == nullptr)
        if (const std::string reason = reason_against(options.program); !reason.empty())
            std::cerr << "k42mc: " << printable(options.program) << ": not checked: " << reason << '\n';
    write_forms(options, report, findings, symbolizer);
    tell_unchecked(verdicts);
    const bool whole = are_whole(report, folder);
    tell_suppressed(std::span(suppressions).first(own));
    if (!options.text)
        for (const std::string &text : outputs.texts)
            std::cerr << "k42mc: the checker said more in " << text << '\n';
    if (!verdicts.empty())
        folder.add_list(list_of(verdicts));
    if (!folder.discard(findings.empty() && whole && outputs.texts.empty()))
        std::cerr << "k42mc: read more with: k42mc report " << folder.path() << '\n';
    return {!findings.empty() || (ended.status == 0 && !whole),
            named != nullptr && named->reason.empty()};
}

// Ends as the program did.
[[noreturn]] void pass_on(int status) {
    if (WIFSIGNALED(status))
        end_by(WTERMSIG(status));
    throw CLI::RuntimeError(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

[[noreturn]] void fail(const std::exception &error) {
    std::cerr << "k42mc run: " << error.what() << '\n';
    throw CLI::RuntimeError(own_trouble);
}

void run_each(const RunOptions &options) {
    int status = 0;
    try {
        status = fail_each(options);
    } catch (const std::exception &error) {
        fail(error);
    }
    if (status != 0)
        throw CLI::RuntimeError(status);
}

void run(const RunOptions &options) {
    Ended ended{};
    Summary summary;
    try {
        std::vector<Setting> settings = environment_for(options);
        std::vector<Suppression> suppressions;
        if (!options.suppressions.empty())
            suppressions = read_suppressions(options.suppressions);
        const ReportFolder folder(options.output, options.append);
        std::ranges::move(folder.settings(), std::back_inserter(settings));
        ended = options.gdb ? launch(in_gdb(options.command(), settings), {})
                            : launch(options.command(), settings);
        summary = summarize(options, std::move(suppressions), folder, ended);
    } catch (const std::exception &error) {
        fail(error);
    }
    if (options.error_exitcode != 0 && !summary.checked && ended.status == 0)
        throw CLI::RuntimeError(own_trouble);
    if (options.error_exitcode != 0 && summary.found)
        throw CLI::RuntimeError(options.error_exitcode);
    pass_on(ended.status);
}

constexpr std::string_view page_guards_option = "--page-guards";

// How many words, after the subcommand's own, belong to it: up to the program's name.
size_t count_own_words(const CLI::App &command, const std::vector<std::string> &words) {
    size_t i = 1;
    for (; i < words.size() && words[i].starts_with('-'); ++i) {
        if (words[i] == "--")
            return std::min(i + 2, words.size());
        const CLI::Option *option = command.get_option_no_throw(words[i]);
        if (option != nullptr && option->get_items_expected_min() > 0)
            ++i; // its value
    }
    return std::min(i + 1, words.size());
}

// Whatever they look like, they are none of ours.
std::vector<std::string> take_arguments(const CLI::App &command, std::vector<std::string> &words) {
    if (words.empty() || words.front() != command.get_name())
        return {};
    const auto first = words.begin() + static_cast<ptrdiff_t>(count_own_words(command, words));
    // Without a value of its own, it would take the program's name for one.
    std::replace(words.begin(), first, std::string(page_guards_option),
                 std::string(page_guards_option) + "=1");
    std::vector<std::string> arguments(first, words.end());
    words.erase(first, words.end());
    return arguments;
}

// "1/N" as well.
std::string take_rate(std::string &rate) {
    if (rate.starts_with("1/"))
        rate.erase(0, 2);
    return {};
}

std::string fault_of_stack(const std::string &stack) {
    return is_stack_name(stack) ? "" : "no name of a stack, which has 16 hexadecimal digits: " + stack;
}

void add_failures(CLI::App &command, RunOptions &options) {
    const auto add = [&](const char *name, auto &option, const char *what, const char *type) {
        return command.add_option(name, option, what)->type_name(type);
    };
    add("--fail-nth", options.fail_nth, "The allocation of this number fails", "N")
        ->check(CLI::PositiveNumber);
    add("--fail-rate", options.fail_one_in, "One allocation in so many fails, at random", "1/N")
        ->transform(CLI::Validator(take_rate, ""))
        ->check(CLI::PositiveNumber);
    add("--fail-seed", options.fail_seed, "Choose others at random", "SEED");
    add("--fail-above", options.fail_above, "Allocations of more bytes fail", "SIZE")
        ->transform(CLI::AsSizeValue(false));
    add("--fail-at", options.fail_at, "Allocations fail that have a frame of such a function or module",
        "PATTERN");
    add("--fail-only", options.fail_only, "... and none without such a frame", "PATTERN");
    add("--fail-not", options.fail_not, "... and none with such a frame", "PATTERN");
    add("--fail-stack", options.fail_stack, "The first allocation with this stack trace fails", "STACK")
        ->check(fault_of_stack);
    command.add_flag("--fail-fds", options.fail_fds, "Opening descriptors fails likewise");
    command.add_flag("--gdb", options.gdb, "In gdb, which stops where an allocation fails on purpose");
}

void refuse_failures_without_choice(const RunOptions &options) {
    for (const auto &[name, wanted] :
         {std::pair("--fail-fds", options.fail_fds), {"--gdb", options.gdb}})
        if (wanted && !options.fails_any())
            throw CLI::ValidationError(name, "which ones fail is said by --fail-nth, --fail-rate, "
                                             "--fail-at, --fail-above, --fail-stack or --fail-each");
}

void add_each(CLI::App &command, EachOptions &each) {
    CLI::Option *wanted = command.add_flag("--fail-each", each.wanted,
                                           "Run it once for each allocation, which fails there");
    const auto add = [&](const char *name, auto &option, const char *what, const char *type) {
        return command.add_option(name, option, what)->type_name(type)->needs(wanted);
    };
    add("--jobs", each.jobs, "So many runs at a time", "N")->check(CLI::PositiveNumber);
    add("--time-limit", each.time_limit, "A run that takes longer hangs", "SECONDS")
        ->check(CLI::Range(1, 1'000'000));
    add("--sample", each.sample, "No more runs than that", "N")->check(CLI::PositiveNumber);
    add("--each-setup", each.setup, "For a shell, ahead of each run", "COMMAND");
    command.add_flag("--each-in-copy", each.in_copy, "Each in a copy of the current folder")
        ->needs(wanted);
    command.add_flag("--resume", each.resume, "Go on where an earlier command to this --output ended")
        ->needs(wanted)
        ->needs(command.get_option("--output"));
}

} // namespace

void add_run(CLI::App &app, std::vector<std::string> &words) {
    const auto options = std::make_shared<RunOptions>();
    CLI::App *command = app.add_subcommand("run", "Run a program with every block guarded and recorded");
    command->footer(examples);
    command->add_option("--output", options->output, "Folder for reports; else a new one")
        ->type_name("DIR");
    command->add_flag("--append", options->append, "Keep the reports of earlier runs there");
    command->add_flag("--text", options->text, "Reports as lines of text as well");
    command->add_option("--every", options->every, "Report every so many seconds")->type_name("SECONDS");
    command->add_option("--signal", options->signal, "Report on this signal")
        ->type_name("SIG")
        ->transform(CLI::Validator(take_signal, ""));
    command->add_option("--limit", options->limit, "Blocks that survived so many reports")
        ->type_name("N");
    command
        ->add_option("--leak-check", options->leak_check,
                     "What counts: blocks that are lost, all that are held, none")
        ->type_name("lost|held|no")
        ->check(CLI::IsMember({"lost", "held", "no"}));
    command->add_flag("--no-backtrace", options->no_backtrace, "Record no stack traces");
    command->add_option("--depth", options->depth, "Frames of stack traces, 17 to 64 (default 16)")
        ->type_name("N")
        ->check(CLI::Range(17, 64));
    command->add_option("--filter", options->filters, "Sites with or without stack traces")
        ->type_name("LINE")
        ->allow_extra_args(false)
        ->check(fault_of_filter);
    command->add_flag("--verify", options->verify, "Damaged blocks among the text, too");
    command
        ->add_option("--quarantine", options->quarantine,
                     "Keep so much of released blocks back (default 16M); 0 for none")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(fault_of_quarantine);
    command
        ->add_flag("--fill{0xcb}", options->fill,
                   "Fill new blocks; with =BYTE, 0 to 255, by another one than 0xcb")
        ->transform(CLI::Validator(take_byte, ""));
    command->add_flag("--fds", options->fds, "Watch descriptors, too");
    command->add_flag("--follow,!--no-follow", options->follow, "Check programs it starts (default)");
    command
        ->add_option(std::string(page_guards_option), options->page_guards,
                     "Pages of their own for one block in so many, or each")
        ->type_name("[ONE_IN]")
        ->expected(0, 1)
        ->check(CLI::PositiveNumber);
    command->add_option("--page-guards-side", options->page_side, "Where in them the block lies")
        ->type_name("end|start|mixed")
        ->check(CLI::IsMember({"end", "start", "mixed"}));
    command
        ->add_option("--page-guards-align", options->page_alignment,
                     "The last byte at the very end, whatever the block's alignment")
        ->type_name("natural|exact")
        ->check(CLI::IsMember({"natural", "exact"}));
    command
        ->add_option("--page-guards-memory", options->page_memory, "How much memory they take at most")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false));
    command->add_flag("--go-on", options->go_on, "Tell of each block once, and let the program go on");
    add_failures(*command, *options);
    add_each(*command, options->each);
    command->add_option("--only", options->only, "Sum up programs of this name alone")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command->add_option("--skip", options->skip, "Leave programs of this name out")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command->add_option("--html", options->html, "Write a page to look at and click through")
        ->type_name("FILE");
    command->add_option("--sarif", options->sarif, "Write what is wrong, for code hosts and editors")
        ->type_name("FILE");
    command->add_option("--suppress", options->suppressions, "Lines leak:PATTERN of known leaks")
        ->type_name("FILE");
    command
        ->add_option("--error-exitcode", options->error_exitcode, "Exit status when something is found")
        ->type_name("N")
        ->check(CLI::Range(1, 255));
    command->add_option("program", options->program, "The program; what follows are its arguments")
        ->type_name("[--] PROGRAM [ARGS]")
        ->required();
    options->arguments = take_arguments(*command, words);
    command->callback([options] {
        refuse_failures_without_choice(*options);
        options->each.wanted ? run_each(*options) : run(*options);
    });
}
