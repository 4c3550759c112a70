#include "tools/report/machine.h"

#include "tools/report/table.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;

Json json_of(const std::vector<std::string> &chain, Symbolizer &symbolizer) {
    Json frames = Json::array();
    for (const std::string &place : chain)
        for (const SourceFrame &frame : symbolizer.lookup(place))
            frames.push_back({{"place", place},
                              {"function", frame.function},
                              {"file", frame.file},
                              {"line", frame.line},
                              {"inlined", frame.inlined}});
    return frames;
}

Json json_of(const Counter &counter) {
    return {{"blocks", counter.blocks}, {"bytes", counter.bytes}};
}

Json json_of(const Place &place, Symbolizer &symbolizer) {
    return {{"name", name_of(place, symbolizer)},
            {"file", place.file},
            {"line", place.line},
            {"type", place.type},
            {"chain", json_of(place.chain, symbolizer)}};
}

Json json_of(const Site &site, const Place &place, Symbolizer &symbolizer) {
    Json json = json_of(place, symbolizer);
    json.update(json_of(site.held));
    json.update({{"oldest", site.oldest},
                 {"largest", site.largest},
                 {"growth", site.growth()},
                 {"series", site.series}});
    return json;
}

Json json_of(const Descriptor &descriptor, Symbolizer &symbolizer) {
    Json events = Json::array();
    for (const DescriptorEvent &event : descriptor.events)
        events.push_back({{"type", event.type},
                          {"operator", event.who},
                          {"time", event.time},
                          {"chain", json_of(event.chain, symbolizer)}});
    return {{"descriptor", descriptor.number},
            {"open", descriptor.open},
            {"alarm", descriptor.alarm},
            {"left_open", descriptor.is_left_open()},
            {"events", events}};
}

Json json_of(const Process &process, const Report &report, Symbolizer &symbolizer) {
    Json damages = Json::array();
    for (const Damage &damage : process.damages) {
        Json json = json_of(report.places()[damage.place], symbolizer);
        json.update({{"defect", damage.defect}, {"address", damage.address}, {"size", damage.size}});
        damages.push_back(std::move(json));
    }
    Json stops = Json::array();
    for (const Stop &stop : process.stops)
        stops.push_back({{"text", stop.text},
                         {"chain", json_of(stop.chain, symbolizer)},
                         {"block", json_of(stop.block, symbolizer)}});
    Json descriptors = Json::array();
    for (const Descriptor &descriptor : process.descriptors)
        descriptors.push_back(json_of(descriptor, symbolizer));
    Json live = Json::array();
    for (const Cycle &cycle : process.cycles)
        live.push_back(json_of(cycle.live));
    return {{"name", process.name},
            {"cycles", live},
            {"damages", damages},
            {"stops", stops},
            {"descriptors", descriptors}};
}

std::string csv_field(std::string_view text) {
    std::string result = "\"";
    for (const char letter : text) {
        if (letter == '"')
            result += '"';
        result += letter;
    }
    return result + '"';
}

// As a chain has them, innermost first.
std::vector<std::string> functions_of(const Place &place, Symbolizer &symbolizer) {
    std::vector<std::string> names;
    for (const std::string &step : place.chain)
        for (const SourceFrame &frame : symbolizer.lookup(step))
            names.push_back(frame.function.empty() ? step : frame.function);
    if (place.line != 0 || names.empty())
        names.insert(names.begin(), place.file + ":" + std::to_string(place.line));
    return names;
}

} // namespace

Json json_of(const Report &report, Order order, Symbolizer &symbolizer) {
    Json sites = Json::array();
    for (const Site &site : sites_of(report, order))
        sites.push_back(json_of(site, report.places()[site.place], symbolizer));
    Json processes = Json::array();
    for (const Process &process : report.processes)
        processes.push_back(json_of(process, report, symbolizer));
    return {{"total", json_of(total_of(report))}, {"sites", sites}, {"processes", processes}};
}

void print_csv(std::ostream &out, const Report &report, Order order, Symbolizer &symbolizer) {
    out << "bytes,blocks,oldest,largest,growth,type,file,line,site\n";
    for (const Site &site : sites_of(report, order)) {
        const Place &place = report.places()[site.place];
        out << site.held.bytes << ',' << site.held.blocks << ',' << site.oldest << ',' << site.largest
            << ',' << site.growth() << ',' << place.type << ',' << csv_field(place.file) << ','
            << place.line << ',' << csv_field(name_of(place, symbolizer)) << '\n';
    }
}

void print_folded(std::ostream &out, const Report &report, Symbolizer &symbolizer) {
    for (const Site &site : sites_of(report, Order::bytes)) {
        std::vector<std::string> names = functions_of(report.places()[site.place], symbolizer);
        std::ranges::reverse(names);
        const char *separator = "";
        for (std::string &name : names) {
            std::ranges::replace(name, ';', ':');
            out << separator << name;
            separator = ";";
        }
        out << ' ' << site.held.bytes << '\n';
    }
}
