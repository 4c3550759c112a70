#include "tools/report/machine.h"

#include "tools/common/printable.h"
#include "tools/report/finding.h"
#include "tools/report/site_name.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;

Json json_of(Trace trace, Symbolizer &symbolizer) {
    Json frames = Json::array();
    for (const std::string_view pc : trace)
        for (const SourceFrame &frame : symbolizer.lookup(pc))
            frames.push_back({{"pc", pc},
                              {"function", frame.function},
                              {"file", frame.file},
                              {"line", frame.line},
                              {"inlined", frame.inlined}});
    return frames;
}

Json json_of(const Counter &counter) {
    return {{"blocks", counter.blocks}, {"bytes", counter.bytes}};
}

Json json_of(const Site &site, Symbolizer &symbolizer) {
    return {{"name", name_of(site, symbolizer)},
            {"file", site.file},
            {"line", site.line},
            {"type", site.type},
            {"chain", json_of(site.trace, symbolizer)}};
}

Json json_of(std::span<const Point> bytes) {
    Json points = Json::array();
    for (const Point &point : bytes)
        points.push_back({point.cycle + 1, point.bytes});
    return points;
}

Json json_of(const SiteHistory &history, const Site &site, Symbolizer &symbolizer) {
    Json json = json_of(site, symbolizer);
    json.update(json_of(history.held));
    json.update({{"oldest", history.oldest},
                 {"largest", history.largest},
                 {"growth", history.growth},
                 {"series", json_of(history.bytes)}});
    return json;
}

const char *name_of(Finding::Kind kind) {
    switch (kind) {
    case Finding::Kind::unchecked:
        return "unchecked";
    case Finding::Kind::note:
        return "note";
    case Finding::Kind::stopped:
        return "stopped";
    case Finding::Kind::crashed:
        return "crashed";
    case Finding::Kind::ended:
        return "ended";
    case Finding::Kind::damaged:
        return "damaged";
    case Finding::Kind::misused_descriptor:
        return "misused descriptor";
    default:
        return "left open";
    }
}

Json json_of(const Finding &finding, Symbolizer &symbolizer) {
    Json trails = Json::array();
    for (const Trail &trail : finding.trails)
        trails.push_back({{"heading", trail.heading}, {"chain", json_of(trail.trace, symbolizer)}});
    return {{"kind", name_of(finding.kind)}, {"what", finding.what},   {"title", finding.title},
            {"count", finding.count},        {"bytes", finding.bytes}, {"trails", trails}};
}

Json json_of(const Damage &damage, const Site &site, Symbolizer &symbolizer) {
    Json json = json_of(site, symbolizer);
    json.update({{"defect", damage.past_end ? "WO" : "WU"},
                 {"address", damage.address_text()},
                 {"size", damage.size},
                 {"cycles", damage.cycles}});
    return json;
}

Json json_of(const Descriptor &descriptor, Symbolizer &symbolizer) {
    Json events = Json::array();
    for (const DescriptorEvent &event : descriptor.events)
        events.push_back({{"type", event.type},
                          {"operator", event.who},
                          {"time", event.time},
                          {"chain", json_of(event.trace, symbolizer)}});
    return {{"descriptor", descriptor.number},
            {"open", descriptor.open},
            {"alarm", descriptor.alarm},
            {"left_open", descriptor.is_left_open()},
            {"events", events}};
}

// An object or array on its way out, an element at a time: together they may not fit into memory.
class JsonPieces {
public:
    explicit JsonPieces(const Put &put) : put_(put) {}

    void open(const char *bracket) {
        separate();
        put_(bracket);
        separator_ = "";
    }

    void open(const char *name, const char *bracket) {
        this->name(name);
        put_(bracket);
        separator_ = "";
    }

    void close(const char *bracket) {
        put_(bracket);
        separator_ = ",";
    }

    void member(const char *name, const Json &value) {
        this->name(name);
        put_(text_of(value));
        separator_ = ",";
    }

    void element(const Json &value) {
        separate();
        put_("\n");
        put_(text_of(value));
        separator_ = ",";
    }

private:
    // All text from elsewhere goes through here: in ASCII, it does nothing to a terminal.
    static std::string text_of(const Json &value) {
        return value.dump(-1, ' ', true, Json::error_handler_t::replace);
    }

    void separate() { put_(separator_); }

    void name(const char *name) {
        separate();
        put_("\"");
        put_(name);
        put_("\":");
    }

    const Put &put_;
    const char *separator_ = "";
};

void put_process(JsonPieces &out, const Report &report, const Process &process, Symbolizer &symbolizer) {
    out.open("{");
    out.member("name", process.name);
    out.open("cycles", "[");
    for (const Cycle &cycle : process.cycles)
        out.element(json_of(cycle.live));
    out.close("]");
    out.open("findings", "[");
    each_finding(report, process,
                 [&](const Finding &finding) { out.element(json_of(finding, symbolizer)); });
    out.close("]");
    out.open("damages", "[");
    for (const Damage &damage : process.damages)
        out.element(json_of(damage, report.site(damage.site), symbolizer));
    out.close("]");
    out.open("descriptors", "[");
    for (const Descriptor &descriptor : process.descriptors)
        out.element(json_of(descriptor, symbolizer));
    out.close("]");
    out.close("}");
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
std::vector<std::string> functions_of(const Site &site, Symbolizer &symbolizer) {
    std::vector<std::string> names;
    for (const std::string_view pc : site.trace)
        for (const SourceFrame &frame : symbolizer.lookup(pc))
            names.push_back(frame.function.empty() ? std::string(pc) : frame.function);
    if (site.line != 0 || names.empty())
        names.insert(names.begin(), std::string(site.file) + ":" + std::to_string(site.line));
    return names;
}

} // namespace

void put_json(const Put &put, const Report &report, Order order, Symbolizer &symbolizer) {
    const Histories histories(report, order);
    JsonPieces out(put);
    out.open("{");
    out.member("format", 1);
    out.member("total", json_of(total_of(report)));
    out.member("cycles", histories.cycles());
    out.open("sites", "[");
    for (const SiteHistory &history : histories.sites())
        out.element(json_of(history, report.site(history.site), symbolizer));
    out.close("]");
    out.open("processes", "[");
    for (const Process &process : report.processes)
        put_process(out, report, process, symbolizer);
    out.close("]");
    out.close("}");
    put("\n");
}

void print_csv(std::ostream &out, const Report &report, Order order, Symbolizer &symbolizer) {
    out << "bytes,blocks,oldest,largest,growth,type,file,line,site\n";
    const Histories histories(report, order);
    for (const SiteHistory &history : histories.sites()) {
        const Site &site = report.site(history.site);
        out << history.held.bytes << ',' << history.held.blocks << ',' << history.oldest << ','
            << history.largest << ',' << history.growth << ',' << csv_field(site.type) << ','
            << csv_field(site.file) << ',' << site.line << ',' << csv_field(name_of(site, symbolizer))
            << '\n';
    }
}

void print_folded(std::ostream &out, const Report &report, Symbolizer &symbolizer) {
    const Histories histories(report, Order::bytes);
    for (const SiteHistory &history : histories.sites()) {
        std::vector<std::string> names = functions_of(report.site(history.site), symbolizer);
        std::ranges::reverse(names);
        const char *separator = "";
        for (const std::string &name : names) {
            out << separator << folded_step(name);
            separator = ";";
        }
        out << ' ' << history.held.bytes << '\n';
    }
}
