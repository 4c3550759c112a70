#include "tools/report/machine.h"

#include "tools/common/printable.h"
#include "tools/report/finding.h"
#include "tools/report/holder_lines.h"

#include <algorithm>
#include <array>
#include <map>

namespace {

void put_trace(JsonWriter &out, Trace trace, Names &names) {
    out.open("chain", '[');
    for (const std::string_view pc : without_cut_mark(trace))
        for (const StackFrame &frame : names.frames_at(pc)) {
            out.open('{');
            out.member("pc", pc);
            out.member("function", frame.full);
            if (!frame.full.empty() && frame.function != frame.full)
                out.member("short", frame.function);
            if (frame.is_startup)
                out.member("start", true);
            out.member("file", frame.file);
            out.member("line", frame.line);
            out.member("inlined", frame.inlined);
            out.close('}');
        }
    out.close(']');
}

void put_counter(JsonWriter &out, const Counter &counter) {
    out.member("blocks", counter.blocks);
    out.member("bytes", counter.bytes);
}

void put_counter(JsonWriter &out, std::string_view name, const Counter &counter) {
    out.open(name, '{');
    put_counter(out, counter);
    out.close('}');
}

void put_place(JsonWriter &out, const Site &site, Names &names) {
    const SiteName name = names.name(site);
    out.member("name", name.text());
    out.member("label", name.label());
    out.member("file", site.file);
    out.member("line", site.line);
    out.member("type", site.type);
    put_trace(out, site.trace, names);
    if (is_cut(site.trace))
        out.member("cut", true);
}

void put_lines(JsonWriter &out, std::string_view name, const std::vector<std::string> &lines) {
    out.open(name, '[');
    for (const std::string &line : lines)
        out.value(line);
    out.close(']');
}

void put_holders(JsonWriter &out, const HeldBy &held_by, const Report &report, Names &names) {
    out.open("held_by", '{');
    out.open("roots", '[');
    for (const Holder &holder : held_by.roots) {
        out.open('{');
        out.member("root", holder.root);
        put_counter(out, holder.held);
        out.close('}');
    }
    out.close(']');
    put_counter(out, "others", held_by.others);
    put_lines(out, "path", describe_path(held_by, report, names));
    out.close('}');
}

void put_site(JsonWriter &out, const SiteHistory &history, const Report &report, bool searched,
              Names &names) {
    put_place(out, report.site(history.site), names);
    put_counter(out, history.held);
    if (searched)
        put_counter(out, "lost", history.lost);
    if (history.held_by != nullptr)
        put_holders(out, *history.held_by, report, names);
    out.member("oldest", history.oldest);
    out.member("largest", history.largest);
    out.member("growth", history.growth);
    out.member("peak", history.peak);
    if (history.allocated.blocks != 0) {
        put_counter(out, "allocated", history.allocated);
        put_counter(out, "temporary", history.temporary);
    }
    out.open("series", '[');
    for (const Point &point : history.bytes) {
        out.open('[');
        out.value(point.cycle + 1);
        out.value(point.bytes);
        out.close(']');
    }
    out.close(']');
}

const char *name_of(Finding::Kind kind) {
    switch (kind) {
    case Finding::Kind::unchecked:
        return "unchecked";
    case Finding::Kind::note:
        return "note";
    case Finding::Kind::stopped:
        return "stopped";
    case Finding::Kind::went_on:
        return "went on";
    case Finding::Kind::crashed:
        return "crashed";
    case Finding::Kind::ended:
        return "ended";
    case Finding::Kind::damaged:
        return "damaged";
    case Finding::Kind::misused_descriptor:
        return "misused descriptor";
    case Finding::Kind::failed_run:
        return "failed run";
    default:
        return "left open";
    }
}

void put_finding(JsonWriter &out, const Finding &finding, Names &names) {
    out.member("kind", name_of(finding.kind));
    out.member("what", finding.what);
    out.member("title", finding.title);
    out.member("count", finding.count);
    out.member("bytes", finding.bytes);
    out.open("trails", '[');
    for (const Trail &trail : finding.trails) {
        out.open('{');
        out.member("heading", trail.heading);
        put_trace(out, trail.trace, names);
        out.close('}');
    }
    out.close(']');
}

void put_damage(JsonWriter &out, const Damage &damage, const Site &site, Names &names) {
    put_place(out, site, names);
    out.member("defect", damage.code());
    out.member("address", damage.address_text());
    out.member("size", damage.size);
    out.member("cycles", damage.cycles);
}

void put_descriptor(JsonWriter &out, const Descriptor &descriptor, Names &names) {
    out.member("descriptor", descriptor.number);
    out.member("open", descriptor.open);
    out.member("alarm", descriptor.alarm);
    out.member("left_open", descriptor.is_left_open());
    out.open("events", '[');
    for (const DescriptorEvent &event : descriptor.events) {
        out.open('{');
        out.member("type", event.type);
        out.member("operator", event.who);
        out.member("time", event.time);
        put_trace(out, event.trace, names);
        out.close('}');
    }
    out.close(']');
}

// An object on a line of its own, whose members the function writes.
template <class PutMembers> void put_line(JsonWriter &out, const PutMembers &put_members) {
    out.line();
    out.open('{');
    put_members();
    out.close('}');
}

// Where in the list of sites each site is.
using Places = std::vector<size_t>;
constexpr size_t nowhere = SIZE_MAX; // it never held anything

// [cycle, bytes, blocks] for each cycle in which a process has something of it.
using Series = std::vector<std::array<uint64_t, 3>>;

void put_series(JsonWriter &out, size_t place, const Series &series) {
    out.line();
    out.open('[');
    out.value(place);
    for (const auto &numbers : series) {
        out.open('[');
        for (const uint64_t number : numbers)
            out.value(number);
        out.close(']');
    }
    out.close(']');
}

void put_sites_of(JsonWriter &out, const Process &process, const Places &places) {
    std::map<size_t, Series> sites;
    for (size_t i = 0; i < process.cycles.size(); ++i)
        for (const Holding &holding : process.cycles[i].holdings) {
            if (places[holding.site] == nowhere || holding.held.blocks == 0)
                continue;
            Series &series = sites[places[holding.site]];
            if (series.empty() || series.back()[0] != i + 1)
                series.push_back({i + 1, 0, 0});
            series.back()[1] += holding.held.bytes;
            series.back()[2] += holding.held.blocks;
        }
    out.open("sites", '[');
    for (const auto &[place, series] : sites)
        put_series(out, place, series);
    out.close(']');
}

void put_process(JsonWriter &out, const Report &report, const Process &process, const Places &places,
                 Names &names) {
    out.open('{');
    out.member("name", process.name);
    out.open("cycles", '[');
    for (const Cycle &cycle : process.cycles)
        put_line(out, [&] {
            put_counter(out, cycle.live);
            if (cycle.time != 0)
                out.member("time", cycle.time);
        });
    out.close(']');
    put_sites_of(out, process, places);
    out.open("findings", '[');
    each_finding(report, process, [&](const Finding &finding) {
        put_line(out, [&] { put_finding(out, finding, names); });
    });
    out.close(']');
    out.open("damages", '[');
    for (const Damage &damage : process.damages)
        put_line(out, [&] { put_damage(out, damage, report.site(damage.site), names); });
    out.close(']');
    out.open("descriptors", '[');
    for (const Descriptor &descriptor : process.descriptors)
        put_line(out, [&] { put_descriptor(out, descriptor, names); });
    out.close(']');
    out.close('}');
}

// In quotes, on one line, and with a letter in front that keeps it a text.
std::string csv_field(std::string_view text) {
    constexpr std::string_view begin_formulas = "=+-@";
    const std::string shown = printable(text);
    std::string result = "\"";
    if (!shown.empty() && begin_formulas.find(shown.front()) != std::string_view::npos)
        result += '\'';
    for (const char letter : shown) {
        if (letter == '"')
            result += '"';
        result += letter;
    }
    return result + '"';
}

// One step of a folded stack.
std::string folded_step(std::string_view text) {
    std::string step = printable(text);
    std::ranges::replace(step, ';', ':');
    return step;
}

// As a trace has them, innermost first.
std::vector<std::string> functions_of(const Site &site, Names &names) {
    std::vector<std::string> steps;
    for (const std::string_view pc : site.trace)
        for (const StackFrame &frame : names.frames_at(pc))
            steps.push_back(frame.full.empty() ? frame.function : frame.full);
    if (site.line != 0 || steps.empty())
        steps.insert(steps.begin(), std::string(site.file) + ":" + std::to_string(site.line));
    return steps;
}

} // namespace

void put_json(const Put &put, const Report &report, Order order, Names &names) {
    const Histories histories(report, order);
    JsonWriter out(put);
    out.open('{');
    out.member("format", 1);
    put_counter(out, "total", total_of(report));
    out.member("cycles", histories.cycles());
    if (histories.were_searched())
        out.member("searched", true);
    out.open("sites", '[');
    for (const SiteHistory &history : histories.sites())
        put_line(out, [&] { put_site(out, history, report, histories.were_searched(), names); });
    out.close(']');
    Places places(report.site_count(), nowhere);
    for (size_t i = 0; i < histories.sites().size(); ++i)
        places[histories.sites()[i].site] = i;
    out.open("processes", '[');
    for (const Process &process : report.processes)
        put_process(out, report, process, places, names);
    out.close(']');
    out.close('}');
}

void print_csv(std::ostream &out, const Report &report, Order order, Names &names) {
    out << "bytes,blocks,oldest,largest,growth,type,file,line,site,peak,allocations,allocated,"
           "temporary\n";
    const Histories histories(report, order);
    for (const SiteHistory &history : histories.sites()) {
        const Site &site = report.site(history.site);
        out << history.held.bytes << ',' << history.held.blocks << ',' << history.oldest << ','
            << history.largest << ',' << history.growth << ',' << csv_field(site.type) << ','
            << csv_field(site.file) << ',' << site.line << ',' << csv_field(names.name(site).text())
            << ',' << history.peak << ',' << history.allocated.blocks << ',' << history.allocated.bytes
            << ',' << history.temporary.blocks << '\n';
    }
}

void print_folded(std::ostream &out, const Report &report, Names &names) {
    Histories histories(report, Order::bytes);
    histories.drop_idle();
    for (const SiteHistory &history : histories.sites()) {
        std::vector<std::string> steps = functions_of(report.site(history.site), names);
        std::ranges::reverse(steps);
        const char *separator = "";
        for (const std::string &step : steps) {
            out << separator << folded_step(step);
            separator = ";";
        }
        out << ' ' << history.held.bytes << '\n';
    }
}
