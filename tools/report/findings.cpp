#include "tools/report/findings.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/trace_lines.h"
#include "tools/report/trace_match.h"
#include "tools/shared/suppression_lines.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <tuple>

namespace {

constexpr const char *still_held = "left", *lost = "lost";

bool matches(const Suppression &suppression, Trace trace, Symbolizer &symbolizer) {
    const std::string &pattern = suppression.pattern;
    if (suppression.module != nullptr)
        return !trace.empty() && matches_pattern(suppression.module, module_of(trace.front())) &&
               matches_symbol(pattern, trace.front(), symbolizer);
    return matches_trace(pattern, trace, symbolizer);
}

// Counts it where it is.
bool is_known(const Group &group, std::vector<Suppression> &suppressions, Symbolizer &symbolizer) {
    const auto found = std::ranges::find_if(suppressions, [&](const Suppression &suppression) {
        return matches(suppression, group.trace, symbolizer);
    });
    if (found == suppressions.end())
        return false;
    found->blocks += group.count;
    found->bytes += group.bytes;
    return true;
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

// The report has each trace in one place.
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
        merged[known->second].count += group.count;
        merged[known->second].bytes += group.bytes;
    }
    groups = std::move(merged);
    std::ranges::stable_sort(groups, [](const Group &left, const Group &right) {
        return std::tuple(!left.certain, right.bytes, right.count) <
               std::tuple(!right.certain, left.bytes, left.count);
    });
}

// Blocks and bytes.
Counter sum_of(std::span<const Group> groups) {
    Counter sum;
    for (const Group &group : groups) {
        sum.blocks += group.count;
        sum.bytes += group.bytes;
    }
    return sum;
}

std::string in_words(const Counter &held, size_t sites) {
    return counted(held.blocks, "block") + ", " + counted(held.bytes, "byte") + " at " +
           counted(sites, "site");
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

void print_remark(std::ostream &out, std::string_view process, const Finding &remark,
                  Symbolizer &symbolizer) {
    if (remark.kind == Finding::Kind::stopped)
        out << "k42mc: process " << remark.process << " was stopped: ";
    else if (remark.kind == Finding::Kind::went_on)
        out << "k42mc: process " << remark.process << " went on after: ";
    else
        out << "k42mc: " << printable(process) << ": ";
    out << printable(remark.title) << '\n';
    for (const Trail &trail : remark.trails) {
        out << "  " << trail.heading << '\n';
        print_trace(out, trail.trace, symbolizer);
    }
}

} // namespace

LeakCheck leak_check_named(std::string_view name) {
    return name == "lost" ? LeakCheck::lost : name == "held" ? LeakCheck::held : LeakCheck::no;
}

Findings::Part::Part(const Report &report, const Process &process, LeakCheck leak_check)
    : name(process.name), own_suppressions(suppressions_in(process.suppressions)) {
    if (!process.cycles.empty())
        add_left(report, process.cycles.back(), leak_check);
    each_finding(report, process, [this](const Finding &finding) { add(finding); });
    merge(blocks);
    merge(descriptors);
}

void Findings::Part::add_left(const Report &report, const Cycle &cycle, LeakCheck leak_check) {
    for (const Holding &holding : cycle.holdings) {
        const Counter counted = leak_check == LeakCheck::held   ? holding.held
                                : leak_check == LeakCheck::lost ? holding.lost
                                                                : Counter{};
        held.blocks += holding.held.blocks - counted.blocks;
        held.bytes += holding.held.bytes - counted.bytes;
        if (counted.blocks != 0)
            blocks.push_back({leak_check == LeakCheck::lost ? lost : still_held,
                              false,
                              counted.blocks,
                              counted.bytes,
                              trace_of(report.site(holding.site)),
                              {}});
    }
}

void Findings::Part::add(const Finding &finding) {
    switch (finding.kind) {
    case Finding::Kind::damaged:
        blocks.push_back(group_of(finding));
        break;
    case Finding::Kind::misused_descriptor:
    case Finding::Kind::left_open:
        descriptors.push_back(group_of(finding));
        break;
    default:
        remarks.push_back(finding);
    }
}

void Findings::Part::print(std::ostream &out, bool is_one_of_many, Symbolizer &symbolizer) const {
    const std::string subject = is_one_of_many ? printable(name) + ": " : "";
    if (is_one_of_many && !blocks.empty())
        out << "k42mc: " << subject << in_words(sum_of(blocks), blocks.size()) << '\n';
    print_groups(out, blocks, "block", symbolizer);
    if (!descriptors.empty()) {
        out << "k42mc: " << subject << "descriptors\n";
        print_groups(out, descriptors, "descriptor", symbolizer);
    }
    for (const Finding &remark : remarks)
        print_remark(out, name, remark, symbolizer);
}

Findings::Findings(const Report &report, LeakCheck leak_check, std::string_view first) {
    for (const Process &process : report.processes)
        parts_.emplace_back(report, process, leak_check);
    std::ranges::stable_sort(parts_, [first](const Part &left, const Part &right) {
        return std::pair(left.name != first, sum_of(right.blocks).bytes) <
               std::pair(right.name != first, sum_of(left.blocks).bytes);
    });
}

void Findings::suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer) {
    for (Part &part : parts_)
        for (auto *const known : {&suppressions, &part.own_suppressions})
            std::erase_if(part.blocks, [&](const Group &group) {
                return (group.what == still_held || group.what == lost) &&
                       is_known(group, *known, symbolizer);
            });
}

bool Findings::empty() const {
    return std::ranges::all_of(parts_, [](const Part &part) {
        return part.blocks.empty() && part.descriptors.empty() &&
               std::ranges::none_of(part.remarks, &Finding::is_fault);
    });
}

// Processes of one program have the same.
void Findings::print_own_suppressions(std::ostream &out) const {
    std::map<std::string_view, Counter> suppressed;
    for (const Part &part : parts_)
        for (const Suppression &suppression : part.own_suppressions)
            suppressed[suppression.pattern] += {suppression.blocks, suppression.bytes};
    for (const auto &[pattern, known] : suppressed)
        if (known.blocks != 0)
            out << "k42mc: suppressed by the program: leak:" << printable(pattern) << ": "
                << counted(known.blocks, "block") << ", " << counted(known.bytes, "byte") << '\n';
}

void Findings::print(std::ostream &out, Symbolizer &symbolizer) const {
    constexpr size_t most_parts = 5;
    Counter all, beside;
    std::set<std::pair<std::string_view, const void *>> sites;
    for (const Part &part : parts_) {
        const Counter held = sum_of(part.blocks);
        all.blocks += held.blocks;
        all.bytes += held.bytes;
        beside += part.held;
        for (const Group &group : part.blocks)
            sites.emplace(group.what, group.trace.data());
    }
    out << "k42mc: " << in_words(all, sites.size()) << " in " << counted(parts_.size(), "process")
        << '\n';
    size_t shown = 0;
    for (const Part &part : parts_)
        if (!part.is_empty() && shown++ < most_parts)
            part.print(out, parts_.size() > 1, symbolizer);
    if (shown > most_parts)
        out << "k42mc: and " << counted(shown - most_parts, "more process") << '\n';
    if (beside.blocks != 0)
        out << "k42mc: held to the end: " << counted(beside.blocks, "block") << ", "
            << counted(beside.bytes, "byte") << "; --leak-check=held lists them\n";
    print_own_suppressions(out);
}
