#include "tools/run/each/outcome_table.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/trace_lines.h"

#include <algorithm>
#include <map>
#include <span>

namespace {

bool is_shown(OutcomeKind kind) {
    return is_bad(kind) || kind == OutcomeKind::wrong;
}

std::string quoted(const std::string &word) {
    constexpr const char *plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:=,+@%";
    if (!word.empty() && word.find_first_not_of(plain) == word.npos)
        return word;
    std::string text = "'";
    for (const char letter : word)
        letter == '\'' ? text += "'\\''" : text += letter;
    return text + "'";
}

// What makes two outcomes alike: where it struck, innermost, or where the allocation was if nothing struck anywhere.
std::string likeness_of(const Outcome &outcome) {
    constexpr size_t most_frames = 4;
    const Happening &worst = outcome.happened.front();
    const std::vector<std::string> &trace = worst.trace.empty() ? outcome.failed : worst.trace;
    std::string likeness;
    if (const size_t end = worst.what.find(':'); end != std::string::npos)
        likeness = worst.what.substr(0, end);
    for (const std::string &pc : std::span(trace).first(std::min(trace.size(), most_frames)))
        likeness += '\n' + pc;
    return likeness;
}

using Alike = std::vector<const Outcome *>;

// In the order in which the first of each came, those of most outcomes first.
std::vector<Alike> alike_ones(const std::vector<Outcome> &outcomes, OutcomeKind kind) {
    std::map<std::string, size_t> numbers;
    std::vector<Alike> all;
    for (const Outcome &outcome : outcomes) {
        if (outcome.kind() != kind)
            continue;
        const auto [known, is_new] = numbers.try_emplace(likeness_of(outcome), all.size());
        if (is_new)
            all.emplace_back();
        all[known->second].push_back(&outcome);
    }
    std::ranges::stable_sort(all, std::greater(), [](const Alike &alike) { return alike.size(); });
    return all;
}

void print_trace(std::ostream &out, const std::vector<std::string> &trace, Symbolizer &symbolizer) {
    const std::vector<std::string_view> pcs(trace.begin(), trace.end());
    print_trace(out, Trace(pcs), symbolizer);
}

void print_alike(std::ostream &out, const Alike &alike, const RunOptions &options,
                 Symbolizer &symbolizer) {
    const Outcome &first = *alike.front();
    const char *before = "  ";
    for (const Happening &happening : first.happened) {
        out << before << outcome_names[static_cast<size_t>(happening.kind)] << ": "
            << printable(happening.what);
        if (before[2] == '\0' && alike.size() > 1)
            out << ", and in " << counted(alike.size() - 1, "more run") << " alike";
        out << '\n';
        print_trace(out, happening.trace, symbolizer);
        before = "   and ";
    }
    out << "   where in " << printable(first.process) << " " << printable(first.failure) << '\n';
    print_trace(out, first.failed, symbolizer);
    if (!first.message.empty())
        out << "   which said: " << printable(first.message) << '\n';
    out << "   repeat it with: " << printable(command_to_repeat(first.stack, options)) << '\n';
}

void print_counts(std::ostream &out, const std::vector<Outcome> &outcomes) {
    std::array<size_t, outcome_names.size()> counts{};
    for (const Outcome &outcome : outcomes)
        ++counts[static_cast<size_t>(outcome.kind())];
    out << "k42mc: " << counted(outcomes.size(), "stack")
        << " of allocations, each without memory in a run";
    const char *separator = ": ";
    for (size_t i = 0; i < counts.size(); ++i)
        if (counts[i] != 0) {
            out << separator << counts[i] << ' ' << outcome_names[i];
            separator = ", ";
        }
    out << '\n';
}

} // namespace

std::string command_to_repeat(const std::string &stack, const RunOptions &options) {
    std::string text = "k42mc run --fds --fail-stack=" + stack;
    text += options.fail_fds ? " --fail-fds --" : " --";
    for (const std::string &word : options.command())
        text += ' ' + quoted(word);
    return text;
}

void print_outcomes(std::ostream &out, const std::vector<Outcome> &outcomes, const RunOptions &options,
                    Symbolizer &symbolizer) {
    constexpr size_t most_shown = 10; // of each kind
    print_counts(out, outcomes);
    for (size_t i = 0; i < outcome_names.size(); ++i) {
        const auto kind = static_cast<OutcomeKind>(i);
        if (!is_shown(kind))
            continue;
        const std::vector<Alike> all = alike_ones(outcomes, kind);
        for (const Alike &alike : std::span(all).first(std::min(all.size(), most_shown)))
            print_alike(out, alike, options, symbolizer);
        if (all.size() > most_shown)
            out << "  and " << all.size() - most_shown << " more " << outcome_names[i] << '\n';
    }
}
