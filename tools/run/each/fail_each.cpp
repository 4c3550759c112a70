#include "tools/run/each/fail_each.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/reader.h"
#include "tools/run/each/outcome_file.h"
#include "tools/run/each/outcome_table.h"
#include "tools/run/each/progress.h"
#include "tools/run/environment.h"
#include "tools/run/forms.h"
#include "tools/run/report_folder.h"
#include "tools/run/signals.h"
#include "tools/run/verdicts.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/signalfd.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

// From here on, signals that would end the command are for it to read.
class EndingSignals {
public:
    EndingSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            sigaddset(&signals, number);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        file_ = File(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    int descriptor() const { return file_.descriptor(); }

    // 0 for none yet.
    int take() {
        signalfd_siginfo signal;
        if (read(file_.descriptor(), &signal, sizeof signal) == sizeof signal)
            number_ = static_cast<int>(signal.ssi_signo);
        return number_;
    }

private:
    File file_;
    int number_ = 0;
};

// A folder for a copy of the current one, while a run needs it.
class CopyFolder {
public:
    explicit CopyFolder(bool wanted) {
        if (!wanted)
            return;
        path_ = (fs::temp_directory_path() / "k42mc-copy.XXXXXX").string();
        if (mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("a folder for a copy, " + path_ + ": " + strerror(errno));
    }
    ~CopyFolder() {
        std::error_code error;
        if (!path_.empty())
            fs::remove_all(path_, error);
    }
    CopyFolder(const CopyFolder &) = delete;
    CopyFolder &operator=(const CopyFolder &) = delete;

    const std::string &path() const { return path_; }
    Moved moved() const { return {path_, path_.empty() ? "" : fs::current_path().string()}; }

private:
    std::string path_;
};

// One run, and its reports.
struct Attempt {
    std::string stack; // that fails; empty for a good run
    CopyFolder copy;
    ReportFolder folder;
    std::unique_ptr<Trial> trial = {};

    Attempt(const std::string &failing, const std::string &name, bool in_copy)
        : stack(failing), copy(in_copy), folder(name, false) {}
};

// The reports of a run, and what they come to.
struct Reading {
    Report report;
    Findings findings;

    Reading(Report read, const RunOptions &options, std::vector<Suppression> suppressions,
            Symbolizer &symbolizer)
        : report(std::move(read)), findings(report, leak_check_named(options.leak_check), "") {
        findings.suppress(suppressions, symbolizer);
    }
};

class Campaign {
public:
    explicit Campaign(const RunOptions &options)
        : options_(options), folder_(options.output, options.append || options.each.resume),
          settings_(environment_for(options)) {
        settings_.push_back({"K42MC_RUN_FDS", "1"});
        if (!options.suppressions.empty())
            suppressions_ = read_suppressions(options.suppressions);
        if (options.each.in_copy &&
            (folder_.path() + "/").starts_with(fs::current_path().string() + "/"))
            throw std::runtime_error("--each-in-copy: the folder for reports, " + folder_.path() +
                                     ", lies in the folder that is copied");
        struct stat input;
        reads_input_ = fstat(STDIN_FILENO, &input) == 0 && S_ISREG(input.st_mode);
    }

    int run() {
        if (!options_.each.resume)
            remove_earlier_reports();
        const OutcomeFile file(path_of("fail-each.jsonl"), options_.command(), options_.each.resume);
        measure_good_runs();
        outcomes_ = file.earlier();
        if (signals_.take() == 0)
            let_each_fail(file);
        end_running();
        print();
        write_forms();
        keep_what_was_found();
        if (signals_.take() != 0)
            end_by(signals_.take());
        const bool bad = std::ranges::any_of(outcomes_, is_bad, &Outcome::kind);
        return bad ? options_.error_exitcode : 0;
    }

private:
    std::string path_of(const std::string &name) const { return folder_.path() + "/" + name; }

    // Of runs that an earlier command has left, and nobody else's.
    void remove_earlier_reports() const {
        std::error_code error;
        for (const fs::directory_entry &entry : fs::directory_iterator(folder_.path(), error))
            if (entry.is_directory() && !entry.is_symlink() &&
                is_stack_name(entry.path().filename().string())) {
                const ReportFolder earlier(entry.path(), false);
                fs::remove(entry.path(), error);
            }
    }

    std::unique_ptr<Attempt> start(const std::string &stack, const std::string &name,
                                   const Setting &setting) const {
        auto attempt = std::make_unique<Attempt>(stack, path_of(name), options_.each.in_copy);
        TrialOrder order = {.command = options_.command(),
                            .settings = settings_,
                            .copy = attempt->copy.path(),
                            .setup = options_.each.setup,
                            .reads_input = reads_input_,
                            .limit = limit_};
        for (const Setting &more : attempt->folder.settings())
            order.settings.push_back(more);
        order.settings.push_back(setting);
        attempt->trial = std::make_unique<Trial>(order);
        return attempt;
    }

    // Null when a signal ends the command instead.
    std::unique_ptr<Attempt> next_ended() {
        constexpr milliseconds pace{200}; // of the progress
        while (signals_.take() == 0) {
            std::vector<pollfd> watched(1 + running_.size() * Trial::watched);
            watched[0] = {signals_.descriptor(), POLLIN, 0};
            Clock::time_point until = Clock::now() + pace;
            for (size_t i = 0; i < running_.size(); ++i) {
                running_[i]->trial->watch(&watched[1 + i * Trial::watched]);
                until = std::min(until, running_[i]->trial->deadline());
            }
            const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
            poll(watched.data(), watched.size(), std::max(0, static_cast<int>(left.count())));
            for (std::unique_ptr<Attempt> &attempt : running_)
                if (attempt->trial->proceed()) {
                    std::unique_ptr<Attempt> ended = std::move(attempt);
                    std::erase(running_, nullptr);
                    return ended;
                }
            show_progress();
        }
        return nullptr;
    }

    Reading read(const Attempt &attempt) {
        return {read_reports(attempt.folder.collect().reports), options_, suppressions_, symbolizer_};
    }

    // The second shows what is not the same in each run.
    void measure_good_runs() {
        const std::string stacks = path_of("stacks");
        std::ofstream(stacks, std::ios::trunc).flush();
        for (const char *name : {"good", "good-again"}) {
            running_.push_back(start("", name, {"K42MC_RUN_FAIL_STACKS", stacks}));
            const std::unique_ptr<Attempt> ended = next_ended();
            if (ended == nullptr)
                return;
            add_good_run(*ended, good_.has_value());
            remove(path_of(name));
        }
        std::ifstream lines(stacks);
        std::set<std::string> known;
        for (std::string line; std::getline(lines, line);)
            if (known.insert(line).second)
                stacks_.push_back(line);
        fs::remove(stacks);
    }

    void add_good_run(const Attempt &attempt, bool is_second) {
        const Trial &trial = *attempt.trial;
        if (trial.is_late())
            throw std::runtime_error("the program does not end in time without any failure");
        refuse_fault(trial);
        const Reading reading = read(attempt);
        refuse_unchecked(reading.report, trial);
        if (!is_second) {
            good_ = {trial.status(), trial.output(), trial.errors(), true, true, {}};
            constexpr int times = 10;
            constexpr milliseconds least{10'000};
            if (limit_.count() == 0)
                limit_ = std::max(least, std::chrono::ceil<milliseconds>(times * trial.duration()));
        } else {
            good_->output_repeats = trial.output() == good_->output && trial.status() == good_->status;
            good_->errors_repeat = trial.errors() == good_->errors;
        }
        good_->found.merge(names_of(reading.findings, trial, attempt.copy.moved()));
    }

    static void refuse_fault(const Trial &trial) {
        std::string fault = trial.own_fault();
        while (fault.ends_with('\n'))
            fault.pop_back();
        if (!fault.empty())
            throw std::runtime_error(printable(fault));
    }

    void refuse_unchecked(const Report &report, const Trial &trial) const {
        const std::string end = "." + std::to_string(trial.process());
        const auto named = std::ranges::find_if(
            report.processes, [&](const Process &process) { return process.name.ends_with(end); });
        if (named != report.processes.end() && named->unchecked.empty())
            return;
        std::string reason = named != report.processes.end() ? std::string(named->unchecked)
                                                             : reason_against(options_.program);
        if (reason.empty())
            reason = trial.errors().start.substr(0, trial.errors().start.find('\n'));
        throw std::runtime_error(options_.program + ": not checked: " + printable(reason));
    }

    // Those that are still to come.
    std::vector<std::string> wanted_stacks() const {
        std::vector<std::string> wanted = stacks_;
        if (const size_t most = options_.each.sample; most != 0 && most < stacks_.size()) {
            wanted.clear();
            for (size_t i = 0; i < most; ++i)
                wanted.push_back(stacks_[i * stacks_.size() / most]);
        }
        std::set<std::string> done;
        for (const Outcome &outcome : outcomes_)
            done.insert(outcome.stack);
        std::erase_if(wanted, [&](const std::string &stack) { return done.contains(stack); });
        return wanted;
    }

    void let_each_fail(const OutcomeFile &file) {
        const std::vector<std::string> wanted = wanted_stacks();
        const size_t jobs = options_.each.jobs != 0
                                ? options_.each.jobs
                                : static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
        all_ = wanted.size();
        for (auto next = wanted.begin(); next != wanted.end() || !running_.empty();) {
            while (next != wanted.end() && running_.size() < jobs) {
                running_.push_back(start(*next, *next, {"K42MC_RUN_FAIL_STACK", *next}));
                ++next;
            }
            show_progress();
            const std::unique_ptr<Attempt> ended = next_ended();
            if (ended == nullptr)
                break;
            take(*ended, file);
        }
    }

    // Of those that a signal to the command has left, nothing is told.
    void end_running() {
        for (const std::unique_ptr<Attempt> &attempt : running_) {
            attempt->trial.reset();
            remove(attempt->folder.path());
        }
        running_.clear();
        progress_.reset();
    }

    // Whoever has left the run's session may still be at work there.
    static void remove(const std::string &folder) {
        std::error_code error;
        fs::remove_all(folder, error);
    }

    void take(const Attempt &attempt, const OutcomeFile &file) {
        refuse_fault(*attempt.trial);
        const Reading reading = read(attempt);
        outcomes_.push_back(outcome_of(attempt.stack, *attempt.trial, reading.report, reading.findings,
                                       *good_, attempt.copy.moved()));
        const Outcome &outcome = outcomes_.back();
        file.add(outcome, command_to_repeat(outcome.stack, options_));
        if (!is_bad(outcome.kind()))
            remove(attempt.folder.path());
        ++done_;
    }

    void show_progress() {
        const auto bad = std::ranges::count_if(outcomes_, is_bad, &Outcome::kind);
        if (all_ != 0)
            progress_->show(done_, all_, bad != 0 ? ", " + std::to_string(bad) + " bad" : "");
    }

    void print() {
        if (good_.has_value() && good_->status != 0)
            std::cerr << "k42mc: the program fails without any failed allocation, too\n";
        if (good_.has_value() && !good_->output_repeats)
            std::cerr << "k42mc: what the program prints differs from run to run, and is not compared\n";
        print_outcomes(std::cerr, outcomes_, options_, symbolizer_);
    }

    void keep_what_was_found() const {
        const bool found = std::ranges::any_of(outcomes_, is_bad, &Outcome::kind);
        if (options_.output.empty() && !found)
            remove(folder_.path());
        else
            std::cerr << "k42mc: what was found, run by run: " << folder_.path() << '\n';
    }

    void write_forms() {
        const std::string outcomes = path_of("fail-each.jsonl");
        const Report report = read_reports(std::span(&outcomes, 1));
        ::write_forms(options_, report, Findings(report, LeakCheck::no, ""), symbolizer_);
    }

    const RunOptions &options_;
    EndingSignals signals_;
    ReportFolder folder_;
    std::vector<Setting> settings_;
    std::vector<Suppression> suppressions_;
    bool reads_input_ = false;
    milliseconds limit_{options_.each.time_limit * 1000};
    Symbolizer symbolizer_;
    std::optional<GoodRun> good_;
    std::vector<std::string> stacks_;
    std::vector<std::unique_ptr<Attempt>> running_;
    std::vector<Outcome> outcomes_;
    std::optional<ProgressLine> progress_{std::in_place};
    size_t done_ = 0, all_ = 0;
};

} // namespace

int fail_each(const RunOptions &options) {
    return Campaign(options).run();
}
