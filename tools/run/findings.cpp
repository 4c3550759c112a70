#include "tools/run/findings.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"

#include <algorithm>
#include <map>
#include <span>
#include <tuple>

namespace {

constexpr const char *still_held = "left";

// By what is known without debug information, which takes long to read.
bool matches_symbol(const std::string &pattern, std::string_view pc, Symbolizer &symbolizer) {
    return matches_pattern(pattern, module_of(pc)) || matches_pattern(pattern, symbolizer.function(pc));
}

// Of libc functions alone: its debug information, where somebody has it, takes longer to read than many a program
// to run, and the line in question is none of its own.
std::vector<SourceFrame> frames_at(std::string_view pc, Symbolizer &symbolizer) {
    if (module_of(pc).find("/libc.so.") == std::string_view::npos)
        return symbolizer.lookup(pc);
    SourceFrame frame;
    frame.function = symbolizer.function(pc);
    return {frame};
}

// Functions that the compiler inlined and source files.
bool matches_source(const std::string &pattern, std::string_view pc, Symbolizer &symbolizer) {
    return std::ranges::any_of(frames_at(pc, symbolizer), [&](const SourceFrame &source) {
        return matches_pattern(pattern, source.function) || matches_pattern(pattern, source.file);
    });
}

bool matches(const Suppression &suppression, Trace trace, Symbolizer &symbolizer) {
    const std::string &pattern = suppression.pattern;
    if (suppression.module != nullptr)
        return !trace.empty() && matches_pattern(suppression.module, module_of(trace.front())) &&
               matches_symbol(pattern, trace.front(), symbolizer);
    const auto any = [&](const auto matches_pc) {
        return std::ranges::any_of(
            trace, [&](std::string_view pc) { return matches_pc(pattern, pc, symbolizer); });
    };
    return any(matches_symbol) || any(matches_source);
}

// Without stack traces, the source file stands for one.
Trace trace_of(const Site &site) {
    return site.trace.empty() ? Trace(&site.file, 1) : site.trace;
}

void add_left(const Report &report, const Process &process, std::vector<Group> &groups) {
    if (!process.cycles.empty())
        for (const Holding &holding : process.cycles.back().holdings)
            groups.push_back({still_held,
                              false,
                              holding.held.blocks,
                              holding.held.bytes,
                              trace_of(report.site(holding.site)),
                              {}});
}

Group group_of(const Finding &finding) {
    const bool certain = finding.kind != Finding::Kind::left_open;
    const auto latest = finding.trails.rbegin();
    Group group = {finding.what, certain, finding.count, finding.bytes, latest->trace, {}};
    if (finding.site != nullptr)
        group.trace = trace_of(*finding.site);
    if (finding.trails.size() > 1)
        group.before = std::next(latest)->trace;
    return group;
}

// A child of fork finds its parent's damaged blocks and open descriptors, too: there a trace counts once, at its
// most. What is left is each process's own. The report has each trace in one place.
void merge(std::vector<Group> &groups) {
    std::map<std::pair<std::string_view, const void *>, size_t> numbers;
    std::vector<Group> merged;
    merged.reserve(groups.size());
    for (const Group &group : groups) {
        const auto [known, is_new] =
            numbers.try_emplace({group.what, group.trace.data()}, merged.size());
        if (is_new) {
            merged.push_back(group);
            continue;
        }
        Group &sum = merged[known->second];
        const bool adds = group.what == still_held;
        sum.count = adds ? sum.count + group.count : std::max(sum.count, group.count);
        sum.bytes = adds ? sum.bytes + group.bytes : std::max(sum.bytes, group.bytes);
    }
    groups = std::move(merged);
    std::ranges::stable_sort(groups, [](const Group &left, const Group &right) {
        return std::tuple(!left.certain, right.bytes, right.count) <
               std::tuple(!right.certain, left.bytes, left.count);
    });
}

void print_trace(std::ostream &out, Trace trace, Symbolizer &symbolizer) {
    constexpr size_t most_frames = 4;
    for (const std::string_view pc : trace.first(std::min(trace.size(), most_frames))) {
        const std::vector<SourceFrame> frames = frames_at(pc, symbolizer);
        for (const SourceFrame &frame : frames)
            out << "    " << printable(describe(pc, frame)) << '\n';
        if (frames.back().function == "main")
            return; // what called it is the same for all
    }
}

void print_groups(std::ostream &out, const std::vector<Group> &groups, const char *noun,
                  Symbolizer &symbolizer) {
    constexpr size_t most_groups = 5;
    for (const Group &group : std::span(groups).first(std::min(groups.size(), most_groups))) {
        out << "  " << group.what << ": " << counted(group.count, noun);
        if (group.bytes != 0)
            out << ", " << counted(group.bytes, "byte");
        out << '\n';
        print_trace(out, group.trace, symbolizer);
        if (!group.before.empty()) {
            out << "   and before by\n";
            print_trace(out, group.before, symbolizer);
        }
    }
    if (groups.size() > most_groups)
        out << "  and " << counted(groups.size() - most_groups, "more site") << '\n';
}

} // namespace

void Findings::add(const Process &process, const Finding &finding) {
    switch (finding.kind) {
    case Finding::Kind::damaged:
        blocks_.push_back(group_of(finding));
        break;
    case Finding::Kind::misused_descriptor:
    case Finding::Kind::left_open:
        descriptors_.push_back(group_of(finding));
        break;
    default:
        remarks_.push_back({std::string(process.name), finding});
    }
}

Findings::Findings(const Report &report) : processes_(report.processes.size()) {
    for (const Process &process : report.processes) {
        add_left(report, process, blocks_);
        each_finding(report, process, [&](const Finding &finding) { add(process, finding); });
    }
    merge(blocks_);
    merge(descriptors_);
}

void Findings::suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer) {
    std::erase_if(blocks_, [&](const Group &group) {
        if (group.what != still_held)
            return false;
        for (Suppression &suppression : suppressions) {
            if (!matches(suppression, group.trace, symbolizer))
                continue;
            suppression.blocks += group.count;
            suppression.bytes += group.bytes;
            return true;
        }
        return false;
    });
}

void Findings::print(std::ostream &out, Symbolizer &symbolizer) const {
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    for (const Group &group : blocks_) {
        blocks += group.count;
        bytes += group.bytes;
    }
    out << "k42mc: " << counted(blocks, "block") << ", " << counted(bytes, "byte") << " at "
        << counted(blocks_.size(), "site") << " in " << counted(processes_, "process") << '\n';
    print_groups(out, blocks_, "block", symbolizer);
    if (!descriptors_.empty()) {
        out << "k42mc: descriptors\n";
        print_groups(out, descriptors_, "descriptor", symbolizer);
    }
    for (const auto &[process, finding] : remarks_) {
        if (finding.kind == Finding::Kind::stopped)
            out << "k42mc: process " << finding.process << " was stopped: ";
        else
            out << "k42mc: " << printable(process) << ": ";
        out << printable(finding.title) << '\n';
        for (const Trail &trail : finding.trails) {
            out << "  " << trail.heading << '\n';
            print_trace(out, trail.trace, symbolizer);
        }
    }
}
