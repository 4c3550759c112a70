#include "tools/report/finding.h"

#include "tools/common/counted.h"

#include <algorithm>
#include <array>
#include <unordered_map>

namespace {

Trail trail_of(const DescriptorEvent &event) {
    return {std::string(event.type).append(" by ").append(event.who).append(" at ").append(event.time),
            event.trace};
}

// Somebody else's wish is no fault of the program.
bool is_request(std::string_view signal) {
    constexpr std::array<std::string_view, 6> requests = {"SIGHUP",  "SIGINT",  "SIGQUIT",
                                                          "SIGPIPE", "SIGALRM", "SIGTERM"};
    return std::ranges::count(requests, signal) != 0;
}

Finding ending_of(const Stop &stop) {
    const std::string text(stop.text);
    return {.kind = is_request(stop.signal) ? Finding::Kind::ended : Finding::Kind::crashed,
            .what = "ended by " + std::string(stop.signal),
            .title = text,
            .trails = {{"in", stop.trace}},
            .process = stop.process};
}

Finding finding_of(const Stop &stop) {
    if (!stop.signal.empty())
        return ending_of(stop);
    std::string title(stop.text.substr(0, stop.text.find(" trace buffer")));
    if (!stop.words.empty())
        title.append(": ").append(stop.words);
    const char *const deed = !stop.is_access() ? "released by"
                             : stop.is_read()  ? "read by"
                                               : "written by";
    Finding finding = {.kind = stop.goes_on ? Finding::Kind::went_on : Finding::Kind::stopped,
                       .what = stop.goes_on ? "went on" : "stopped",
                       .title = std::move(title),
                       .trails = {},
                       .process = stop.process};
    if (!stop.trace.empty() || !stop.is_access())
        finding.trails.push_back({deed, stop.trace});
    if (!stop.block.empty())
        finding.trails.push_back(
            {stop.is_double_free() ? "released before by" : "allocated by", stop.block});
    if (!stop.release.empty())
        finding.trails.push_back({"released by", stop.release});
    return finding;
}

std::string place_of(const char *deed, const Site &site) {
    const std::string type = "(" + std::string(site.type) + ")";
    if (site.line == 0 && !site.trace.empty())
        return std::string(deed) + " " + type + " by";
    const std::string line = site.line != 0 ? ":" + std::to_string(site.line) : "";
    return std::string(deed) + " at " + std::string(site.file) + line + " " + type;
}

// "past its end", or with another article.
std::string place_of(Damage::Kind kind, const char *article) {
    switch (kind) {
    case Damage::Kind::past_end:
        return std::string("past ") + article + " end";
    case Damage::Kind::before_start:
        return std::string("before ") + article + " start";
    default:
        return std::string("after ") + article + " release";
    }
}

Finding finding_of(const Damage &damage, const Site &site) {
    const std::string code(damage.code());
    const bool released = damage.kind == Damage::Kind::after_release;
    Finding finding = {.kind = Finding::Kind::damaged,
                       .what = "written " + place_of(damage.kind, "the") + " (" + code + ")",
                       .title = code + ": a block of " + counted(damage.size, "byte") + " at " +
                                damage.address_text() + " was written " + place_of(damage.kind, "its"),
                       .trails = {{place_of(released ? "released" : "allocated", site), site.trace}},
                       .bytes = damage.size,
                       .site = &site};
    if (!damage.allocation.empty())
        finding.trails.push_back({"allocated by", damage.allocation});
    return finding;
}

Finding misuse_of(const Descriptor &descriptor) {
    const bool standard = descriptor.is_standard() || descriptor.events.size() < 2;
    const std::string number = std::to_string(descriptor.number);
    Finding finding = {
        .kind = Finding::Kind::misused_descriptor,
        .what = standard ? "standard descriptor opened or closed repeatedly" : "closed twice",
        .title = standard ? "standard descriptor " + number + " opened or closed repeatedly"
                          : "descriptor " + number + " closed twice",
        .trails = {}};
    for (const DescriptorEvent &event : descriptor.events)
        finding.trails.push_back(trail_of(event));
    return finding;
}

// Those that one stack trace opened go together.
std::vector<std::vector<const Descriptor *>> left_open(const Process &process) {
    std::vector<std::vector<const Descriptor *>> groups;
    std::unordered_map<const void *, size_t> by_trace;
    for (const Descriptor &descriptor : process.descriptors) {
        if (!descriptor.is_left_open())
            continue;
        const Trace trace = descriptor.events.back().trace;
        const void *const key = trace.empty() ? nullptr : trace.data();
        const auto [group, is_new] = by_trace.try_emplace(key, groups.size());
        if (is_new)
            groups.emplace_back();
        groups[group->second].push_back(&descriptor);
    }
    return groups;
}

Finding finding_of(const std::vector<const Descriptor *> &group) {
    std::string title = group.size() == 1 ? "descriptor left open: " : "descriptors left open: ";
    for (const Descriptor *descriptor : group)
        title += (descriptor == group.front() ? "" : ", ") + std::to_string(descriptor->number);
    return {.kind = Finding::Kind::left_open,
            .what = "open",
            .title = title,
            .trails = {trail_of(group.front()->events.back())},
            .count = group.size()};
}

Finding finding_of(const Note &note) {
    Finding finding = {
        .kind = Finding::Kind::note, .what = "note", .title = std::string(note.text), .trails = {}};
    if (!note.trace.empty())
        finding.trails.push_back({"there", note.trace});
    return finding;
}

Finding finding_of(const FailedRun &run) {
    Finding finding = {.kind = Finding::Kind::failed_run,
                       .what = std::string(run.happened.front().outcome),
                       .title = {},
                       .trails = {}};
    for (const FailedRun::Happening &happening : run.happened) {
        const std::string text = std::string(happening.outcome).append(": ").append(happening.text);
        finding.title += (finding.title.empty() ? "" : ", and ") + text;
        if (!happening.trace.empty())
            finding.trails.push_back({text, happening.trace});
    }
    finding.title.append(", where ").append(run.failure);
    if (run.runs > 1)
        finding.title += "; " + counted(run.runs - 1, "more run") + " alike";
    finding.title.append("; repeat it with: ").append(run.repeat);
    finding.trails.push_back({std::string(run.failure), run.failed});
    return finding;
}

} // namespace

void each_finding(const Report &report, const Process &process, const TakeFinding &take) {
    if (!process.unchecked.empty())
        take({.kind = Finding::Kind::unchecked,
              .what = "not checked",
              .title = "not checked: " + std::string(process.unchecked),
              .trails = {}});
    for (const Note &note : process.notes)
        take(finding_of(note));
    for (const Stop &stop : process.stops)
        take(finding_of(stop));
    for (const Damage &damage : process.damages)
        take(finding_of(damage, report.site(damage.site)));
    for (const Descriptor &descriptor : process.descriptors)
        if (descriptor.alarm)
            take(misuse_of(descriptor));
    for (const auto &group : left_open(process))
        take(finding_of(group));
    for (const FailedRun &run : process.failed_runs)
        if (run.is_bad())
            take(finding_of(run));
}
