#include "tools/report/reader.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace {

using Json = nlohmann::json;

// Without the shim's own functions, which stand between libc and the program in some.
std::vector<std::string> chain_of(const Json &line, const char *member = "chain") {
    auto chain = line.at(member).get<std::vector<std::string>>();
    std::erase_if(chain, [](const std::string &place) {
        return place.find("/libk42mc_preload.so+") != std::string::npos;
    });
    return chain;
}

// Whole numbers that fit; the conversions of the library would take any.
template <class Number> Number number_in(const Json &line, const char *member) {
    const Json &value = line.at(member);
    const bool whole = value.is_number_integer() &&
                       (value.is_number_unsigned() ? std::in_range<Number>(value.get<uint64_t>())
                                                   : std::in_range<Number>(value.get<int64_t>()));
    if (!whole)
        throw Json::other_error::create(501, std::string("no such number: ") + member, &line);
    return value.get<Number>();
}

Place place_of(const Json &line) {
    return {line.at("file"), number_in<int>(line, "line"), line.at("type"), chain_of(line)};
}

Counter counter_of(const Json &line) {
    return {number_in<uint64_t>(line, "blocks"), number_in<uint64_t>(line, "bytes")};
}

class JsonReader {
public:
    JsonReader(Report &report, const std::string &name) : report_(report), name_(name) {
        report_.processes.push_back({name_, {}, {}, {}, {}});
    }

    void read(std::string_view text) {
        while (!text.empty()) {
            const size_t end = text.find('\n');
            ++line_;
            read_line(text.substr(0, end));
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        }
        if (unfinished_)
            complain("the report is cut off here");
        if (is_empty()) {
            report_.processes.pop_back();
            complain("no report in this file");
        }
    }

private:
    Process &process() { return report_.processes.back(); }

    bool is_empty() {
        return process().cycles.empty() && process().descriptors.empty() && process().stops.empty();
    }

    void complain(std::string text) { report_.problems.push_back({name_, line_, std::move(text)}); }

    void read_line(std::string_view text) {
        if (text.empty())
            return;
        try {
            take(Json::parse(text));
        } catch (const Json::exception &error) {
            complain(std::string("no line of a report: ") + error.what());
        }
    }

    void take(const Json &line) {
        const std::string kind = line.at("kind");
        if (kind == "run")
            return; // what k42mc run knows its own files by
        if (kind == "cycle") {
            begin_cycle(line);
        } else if (kind == "descriptor") {
            add_descriptor(line);
        } else if (kind == "defect") {
            process().stops.push_back(
                {number_in<int>(line, "pid"), line.at("text"), chain_of(line), chain_of(line, "block")});
        } else if (!unfinished_) {
            complain("what is ahead of this line is missing");
        } else if (kind == "site") {
            add_site(line);
        } else if (kind == "damage") {
            add_damage(line);
        } else if (kind == "end") {
            unfinished_ = false;
        }
    }

    void begin_cycle(const Json &line) {
        if (unfinished_)
            complain("a report ahead of this one is cut off");
        const auto number = number_in<uint32_t>(line, "cycle");
        const Counter live = counter_of(line);
        if (process().cycles.empty())
            process().name = line.at("program").get<std::string>() + "." +
                             std::to_string(number_in<int>(line, "pid"));
        process().cycles.push_back({number, live, {}});
        process().damages.clear();
        process().descriptors.clear();
        unfinished_ = true;
    }

    void add_site(const Json &line) {
        // The descriptor checker's own records of what it watches.
        if (line.at("file") == "common/lib/libk42mc/k42mc_ds")
            return;
        const Holding holding = {report_.place(place_of(line)), counter_of(line),
                                 number_in<uint32_t>(line, "oldest"),
                                 number_in<uint64_t>(line, "largest")};
        process().cycles.back().holdings.push_back(holding);
    }

    void add_damage(const Json &line) {
        process().damages.push_back({line.at("defect"), report_.place(place_of(line)),
                                     line.at("address"), number_in<uint64_t>(line, "size"),
                                     number_in<uint32_t>(line, "cycles")});
    }

    void add_descriptor(const Json &line) {
        Descriptor descriptor{
            number_in<int>(line, "descriptor"), line.at("open"), line.at("alarms") != 0, {}};
        for (const Json &event : line.at("events"))
            descriptor.events.push_back(
                {event.at("type"), event.at("operator"), event.at("time"), chain_of(event)});
        if (!descriptor.events.empty())
            process().descriptors.push_back(std::move(descriptor));
    }

    Report &report_;
    const std::string &name_;
    size_t line_ = 0;
    bool unfinished_ = false; // the "end" is still to come
};

} // namespace

void read_json(Report &report, const std::string &name, std::string_view text) {
    JsonReader(report, name).read(text);
}
