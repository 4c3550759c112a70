#include "tools/report/complaints.h"
#include "tools/report/holder_lines.h"
#include "tools/report/reader.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <simdjson.h>
#include <stdexcept>
#include <utility>

namespace {

using Json = simdjson::dom::element;

// The newest version of the lines that is known; lines without one are of the first.
constexpr uint32_t known_format = 1;

[[noreturn]] void refuse(const char *member, const char *cause) {
    throw std::runtime_error(std::string(member) + ": " + cause);
}

// Of a value or of an attempt to get one.
template <class Value, class Source> Value value_of(Source json, const char *member) {
    Value value;
    if (const simdjson::error_code error = json.get(value))
        refuse(member, simdjson::error_message(error));
    return value;
}

template <class Value> Value value_in(Json line, const char *member) {
    return value_of<Value>(line[member], member);
}

std::string_view text_in(Json line, const char *member) {
    return value_in<std::string_view>(line, member);
}

// Without the shim's own functions, which stand between libc and the program in some.
std::vector<std::string_view> trace_in(Json line, const char *member = "chain") {
    const auto chain = value_in<simdjson::dom::array>(line, member);
    std::vector<std::string_view> trace;
    trace.reserve(chain.size());
    for (const Json element : chain) {
        const auto pc = value_of<std::string_view>(element, member);
        if (!pc.empty() && pc.find("/libk42mc_preload.so+") == std::string_view::npos)
            trace.push_back(pc);
    }
    return trace;
}

// Whole numbers that fit.
template <class Number> Number number_in(Json line, const char *member) {
    using Widest = std::conditional_t<std::is_signed_v<Number>, int64_t, uint64_t>;
    const auto number = value_in<Widest>(line, member);
    if (!std::in_range<Number>(number))
        refuse(member, "a number that is out of range");
    return static_cast<Number>(number);
}

uint64_t address_in(Json line, const char *member) {
    const std::string_view text = text_in(line, member);
    uint64_t address = 0;
    const auto [end, error] = std::from_chars(text.data() + std::min<size_t>(text.size(), 2),
                                              text.data() + text.size(), address, 16);
    if (!text.starts_with("0x") || error != std::errc() || end != text.data() + text.size())
        refuse(member, "no address");
    return address;
}

Damage::Kind damage_in(Json line) {
    const std::string_view defect = text_in(line, "defect");
    if (defect != "WO" && defect != "WU")
        refuse("defect", "neither WO nor WU");
    return defect == "WO" ? Damage::Kind::past_end : Damage::Kind::before_start;
}

Counter counter_of(Json line) {
    return {number_in<uint64_t>(line, "blocks"), number_in<uint64_t>(line, "bytes")};
}

bool has(Json line, const char *member) {
    return line[member].error() == simdjson::SUCCESS;
}

class JsonReader {
public:
    JsonReader(Report &report, const std::string &name)
        : report_(report), name_(name), complaints_(report, name), first_(report.processes.size()),
          current_(first_) {
        add_process();
    }

    void read(Lines &lines) {
        while (!refused_ && lines.next()) {
            line_ = lines.number();
            if (lines.is_too_long())
                complain("a line is too long");
            else
                read_line(lines.line());
        }
        if (unfinished_ && !refused_)
            complain("the report is cut off here");
        end_cycle();
        drop_empty();
        if (report_.processes.size() == first_ && !refused_)
            complain("no report in this file");
    }

private:
    // That the report is of.
    Process &process() { return report_.processes[current_]; }

    void add_process() { report_.processes.emplace_back().name = report_.text(name_); }

    // Children that nobody told of their fork may have written to the same file.
    size_t number_of(int pid) {
        const auto [known, is_new] = by_pid_.try_emplace(pid, report_.processes.size());
        if (is_new && by_pid_.size() == 1)
            known->second = first_;
        else if (is_new)
            add_process();
        return known->second;
    }

    void drop_empty() {
        const auto is_empty = [](const Process &process) {
            return process.cycles.empty() && process.descriptors.empty() && process.stops.empty() &&
                   process.unchecked.empty() && process.failed_runs.empty();
        };
        const auto first = report_.processes.begin() + static_cast<ptrdiff_t>(first_);
        report_.processes.erase(std::remove_if(first, report_.processes.end(), is_empty),
                                report_.processes.end());
    }

    void complain(std::string_view text) { complaints_.add(line_, text); }

    void read_line(std::string_view text) {
        if (text.find_first_not_of(" \t\r") == std::string_view::npos)
            return;
        try {
            const auto line = value_of<Json>(parser_.parse(text), "JSON");
            const uint32_t format = has(line, "format") ? number_in<uint32_t>(line, "format") : 1;
            refused_ = format > known_format;
            if (refused_)
                complain("format " + std::to_string(format) + " is newer than this k42mc, which reads " +
                         std::to_string(known_format));
            else
                take(line);
        } catch (const std::runtime_error &error) {
            complain(std::string("not a report line: ") + error.what());
        }
    }

    void take(Json line) {
        const std::string_view kind = text_in(line, "kind");
        if (kind == "run")
            return; // what k42mc run knows its own files by
        if (kind == "cycle") {
            begin_cycle(line);
        } else if (kind == "descriptor") {
            add_descriptor(line);
        } else if (kind == "defect") {
            add_stop(line);
        } else if (kind == "signal") {
            add_ending(line);
        } else if (kind == "unchecked") {
            process_in(line).unchecked = report_.text(text_in(line, "reason"));
        } else if (kind == "note") {
            add_note(line);
        } else if (kind == "fail-each") {
            name_by_command(line);
        } else if (kind == "outcome") {
            add_failed_run(line);
        } else if (kind == "suppressions") {
            process_in(line).suppressions = report_.text(text_in(line, "text"));
        } else if (kind == "site" || kind == "damage" || kind == "end") {
            add_part(kind, line);
        }
    }

    // What stands between a cycle and its end.
    void add_part(std::string_view kind, Json line) {
        if (!unfinished_)
            complain("what comes before this line is missing");
        else if (kind == "site")
            add_site(line);
        else if (kind == "damage")
            add_damage(line);
        else
            unfinished_ = false;
    }

    // One may say something in the midst of another's report.
    Process &process_in(Json line) {
        const int pid = number_in<int>(line, "pid");
        Process &process = report_.processes[number_of(pid)];
        if (process.name == name_)
            process.name =
                report_.text(std::string(text_in(line, "program")) + "." + std::to_string(pid));
        return process;
    }

    void begin_cycle(Json line) {
        if (unfinished_)
            complain("a report before this one is cut off");
        const auto number = number_in<uint32_t>(line, "cycle");
        const Counter live = counter_of(line);
        const uint64_t time = has(line, "time") ? number_in<uint64_t>(line, "time") : 0;
        end_cycle();
        current_ = static_cast<size_t>(&process_in(line) - report_.processes.data());
        process().cycles.push_back({number, live, has(line, "searched")});
        process().cycles.back().time = time;
        process().damages.clear();
        process().descriptors.clear();
        unfinished_ = true;
    }

    void end_cycle() {
        if (!process().cycles.empty())
            process().cycles.back().holdings.shrink_to_fit();
    }

    uint32_t site_in(Json line) {
        std::vector<std::string_view> trace = trace_in(line);
        if (has(line, "cut"))
            trace.push_back(cut_mark);
        return report_.site_number(
            {text_in(line, "file"), number_in<int>(line, "line"), text_in(line, "type"), trace});
    }

    static Counter counter_in(Json line, const char *member) {
        return has(line, member) ? counter_of(value_in<Json>(line, member)) : Counter{};
    }

    static Counter lost_in(Json line) {
        Counter lost;
        for (const char *way : {"lost", "indirect"})
            lost += counter_in(line, way);
        return lost;
    }

    HeldLink link_in(Json link) {
        if (!has(link, "file")) // it was released meanwhile
            return {};
        return {site_in(link), number_in<uint64_t>(link, "size"), number_in<uint64_t>(link, "offset")};
    }

    HeldBy held_by_in(Json line) {
        const auto json = value_in<Json>(line, "held_by");
        HeldBy held_by;
        for (const Json root : value_in<simdjson::dom::array>(json, "roots"))
            held_by.roots.push_back(
                {report_.text(readable_root(text_in(root, "root"))), counter_of(root)});
        held_by.others = counter_in(json, "others");
        for (const Json link : value_in<simdjson::dom::array>(json, "path"))
            held_by.path.push_back(link_in(link));
        held_by.left_out = number_in<uint64_t>(json, "left_out");
        return held_by;
    }

    void add_site(Json line) {
        // The descriptor checker's own records of what it watches.
        if (text_in(line, "file") == "common/lib/libk42mc/k42mc_ds")
            return;
        const Holding holding = {site_in(line),
                                 number_in<uint32_t>(line, "oldest"),
                                 counter_of(line),
                                 number_in<uint64_t>(line, "largest"),
                                 lost_in(line),
                                 counter_in(line, "allocations"),
                                 counter_in(line, "temporary")};
        Cycle &cycle = process().cycles.back();
        if (has(line, "held_by"))
            cycle.held_by[holding.site] = held_by_in(line);
        cycle.holdings.push_back(holding);
    }

    void add_damage(Json line) {
        process().damages.push_back({damage_in(line), site_in(line), number_in<uint32_t>(line, "cycles"),
                                     address_in(line, "address"), number_in<uint64_t>(line, "size")});
    }

    void add_stop(Json line) {
        process().stops.push_back({number_in<int>(line, "pid"), report_.text(text_in(line, "text")),
                                   has(line, "words") ? report_.text(text_in(line, "words")) : "",
                                   report_.trace(trace_in(line)),
                                   report_.trace(trace_in(line, "block"))});
        Stop &stop = process().stops.back();
        if (has(line, "release"))
            stop.release = report_.trace(trace_in(line, "release"));
        stop.goes_on = has(line, "goes_on");
    }

    void add_note(Json line) {
        process_in(line).notes.push_back({report_.text(text_in(line, "text")),
                                          has(line, "chain") ? report_.trace(trace_in(line)) : Trace{}});
    }

    void name_by_command(Json line) {
        for (const Json word : value_in<simdjson::dom::array>(line, "command")) {
            const auto program = value_of<std::string_view>(word, "command");
            process().name = report_.text(program.substr(program.rfind('/') + 1));
            return;
        }
    }

    void add_failed_run(Json line) {
        FailedRun run;
        for (const Json happening : value_in<simdjson::dom::array>(line, "happened"))
            run.happened.push_back({report_.text(text_in(happening, "outcome")),
                                    report_.text(text_in(happening, "what")),
                                    report_.trace(trace_in(happening))});
        if (run.happened.empty())
            refuse("happened", "nothing");
        run.failure = report_.text(text_in(line, "failure"));
        run.failed = report_.trace(trace_in(line, "failed"));
        run.repeat = report_.text(text_in(line, "repeat"));
        std::vector<FailedRun> &runs = process().failed_runs;
        const auto like =
            std::ranges::find_if(runs, [&](const FailedRun &known) { return known.is_like(run); });
        if (like != runs.end())
            ++like->runs;
        else
            runs.push_back(std::move(run));
    }

    void add_ending(Json line) {
        Process &process = process_in(line);
        const std::string_view signal = text_in(line, "name");
        std::string text = "ended by " + std::string(signal);
        if (has(line, "address"))
            text += " at address " + std::string(text_in(line, "address"));
        process.stops.push_back({.process = number_in<int>(line, "pid"),
                                 .text = report_.text(text),
                                 .words = {},
                                 .trace = report_.trace(trace_in(line)),
                                 .block = {},
                                 .signal = report_.text(signal)});
    }

    void add_descriptor(Json line) {
        Descriptor descriptor{number_in<int>(line, "descriptor"),
                              value_in<bool>(line, "open"),
                              number_in<uint64_t>(line, "alarms") != 0,
                              {}};
        for (const Json event : value_in<simdjson::dom::array>(line, "events"))
            descriptor.events.push_back(
                {report_.text(text_in(event, "type")), report_.text(text_in(event, "operator")),
                 report_.text(text_in(event, "time")), report_.trace(trace_in(event))});
        if (!descriptor.events.empty())
            process().descriptors.push_back(std::move(descriptor));
    }

    Report &report_;
    const std::string &name_;
    Complaints complaints_;
    simdjson::dom::parser parser_; // has the texts of the line
    const size_t first_;           // of the processes
    size_t current_;
    std::map<int, size_t> by_pid_;
    uint64_t line_ = 0;
    bool refused_ = false;    // for a format that is not known
    bool unfinished_ = false; // the "end" is still to come
};

} // namespace

void read_json(Report &report, const std::string &name, Lines &lines) {
    JsonReader(report, name).read(lines);
}
