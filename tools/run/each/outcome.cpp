#include "tools/run/each/outcome.h"

#include "tools/common/counted.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <sys/wait.h>

namespace {

std::vector<std::string> unmoved(Trace trace, const Moved &moved) {
    std::vector<std::string> lines;
    for (const std::string_view pc : trace) {
        lines.emplace_back(pc);
        if (!moved.from.empty() && pc.starts_with(moved.from + "/"))
            lines.back().replace(0, moved.from.size(), moved.to);
    }
    return lines;
}

// The same in each run of a program.
std::string name_of(const Happening &happening) {
    std::string name = outcome_names[static_cast<size_t>(happening.kind)];
    if (const size_t end = happening.what.find(':'); end != std::string::npos)
        name += happening.what.substr(0, end);
    for (const std::string &pc : happening.trace)
        name += '\n' + pc;
    return name;
}

Happening happening_of(const Group &group, const char *noun, const Moved &moved) {
    std::string what = counted(group.count, noun);
    if (group.what != "lost")
        what.insert(0, group.what + ": ");
    if (group.bytes != 0)
        what += ", " + counted(group.bytes, "byte");
    return {group.certain ? OutcomeKind::damaged : OutcomeKind::lost, std::move(what),
            unmoved(group.trace, moved)};
}

Happening happening_of(const Finding &remark, const Moved &moved) {
    const bool is_crash = remark.kind == Finding::Kind::crashed;
    return {is_crash ? OutcomeKind::crash : OutcomeKind::damaged, is_crash ? remark.what : remark.title,
            unmoved(remark.trails.empty() ? Trace{} : remark.trails.front().trace, moved)};
}

// What a process has open when it gives up, the system closes. Only of the program's own nobody has to guess whether it did.
std::vector<Happening> happened_in(const Findings &findings, const Trial &trial, const Moved &moved) {
    const std::string own_end = "." + std::to_string(trial.process());
    std::vector<Happening> all;
    for (const Findings::Part &part : findings.parts()) {
        for (const Group &group : part.blocks)
            all.push_back(happening_of(group, "block", moved));
        for (const Group &group : part.descriptors)
            if (group.certain || part.name.ends_with(own_end))
                all.push_back(happening_of(group, "descriptor", moved));
        for (const Finding &remark : part.remarks)
            if (remark.is_fault())
                all.push_back(happening_of(remark, moved));
    }
    return all;
}

bool is_descriptor_left_open(const Happening &happening) {
    return happening.kind == OutcomeKind::lost && happening.what.starts_with("open");
}

void note_failure(Outcome &outcome, const Report &report, const Moved &moved) {
    for (const Process &process : report.processes)
        for (const Note &note : process.notes)
            if (note.text.starts_with("allocation ") &&
                note.text.find(" failed on purpose") != note.text.npos) {
                outcome.process = process.name;
                outcome.failure = note.text;
                outcome.failed = unmoved(note.trace, moved);
                return;
            }
}

std::string ending_of(int status) {
    if (!WIFSIGNALED(status))
        return "exit status " + std::to_string(WEXITSTATUS(status));
    const char *const name = sigabbrev_np(WTERMSIG(status));
    return "ended by " +
           (name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(WTERMSIG(status)));
}

OutcomeKind kind_of_end(const Trial &trial, const GoodRun &good) {
    const bool as_ever = trial.status() == good.status;
    if (WIFSIGNALED(trial.status()) && !as_ever)
        return OutcomeKind::crash;
    if (trial.status() != 0 && !as_ever)
        return OutcomeKind::handled;
    if (good.output_repeats && trial.output() != good.output)
        return OutcomeKind::wrong;
    return good.errors_repeat && trial.errors() == good.errors ? OutcomeKind::ignored
                                                               : OutcomeKind::handled;
}

// The first line that is none of the checker's.
std::string own_message(const std::string &said) {
    std::istringstream lines(said);
    std::string line;
    while (std::getline(lines, line))
        if (!line.empty() && !line.starts_with("k42mc: ") &&
            !line.starts_with("assertion \"0\" failed: file \"common/lib/libk42mc"))
            return line;
    return {};
}

Happening end_of(const Trial &trial, const GoodRun &good) {
    if (trial.is_late())
        return {OutcomeKind::hang, "no end in time", {}};
    return {kind_of_end(trial, good), ending_of(trial.status()), {}};
}

} // namespace

std::set<std::string> names_of(const Findings &findings, const Trial &trial, const Moved &moved) {
    std::set<std::string> names;
    for (const Happening &happening : happened_in(findings, trial, moved))
        names.insert(name_of(happening));
    return names;
}

Outcome outcome_of(const std::string &stack, const Trial &trial, const Report &report,
                   const Findings &findings, const GoodRun &good, const Moved &moved) {
    Outcome outcome{.stack = stack};
    note_failure(outcome, report, moved);
    outcome.message = own_message(trial.errors().start);
    const Happening end = end_of(trial, good);
    if (outcome.failure.empty()) {
        outcome.happened = {{OutcomeKind::unreached, end.what, {}}};
        return outcome;
    }
    std::vector<Happening> &happened = outcome.happened;
    happened = happened_in(findings, trial, moved);
    std::erase_if(happened, [&](const Happening &happening) {
        return good.found.contains(name_of(happening)) ||
               (is_descriptor_left_open(happening) && trial.status() != good.status);
    });
    if (trial.is_late()) // its crash is what was done to it
        for (Happening &happening : happened)
            if (happening.kind == OutcomeKind::crash)
                happening = {end.kind, end.what, std::move(happening.trace)};
    const auto is_told = [&](const Happening &happening) { return happening.kind <= end.kind; };
    if (std::ranges::none_of(happened, is_told))
        happened.push_back(end);
    std::ranges::stable_sort(happened, {}, &Happening::kind);
    return outcome;
}
