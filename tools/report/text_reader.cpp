#include "tools/common/symbols.h"
#include "tools/report/complaints.h"
#include "tools/report/reader.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <unordered_map>

namespace {

constexpr std::string_view cycle_head = "-----------<cycle ";

// Takes the part behind the last colon off a text.
std::string_view take_last(std::string_view &text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return {};
    const std::string_view part = text.substr(colon + 1);
    text = text.substr(0, colon);
    return part;
}

template <class Number> bool parse(std::string_view text, Number &number, int base = 10) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

// "file:line:LK:type:0xADDRESS:size:cycles", from the right: files may have colons in their names.
struct BlockLine {
    std::string_view origin; // all in front of the address
    uint64_t address = 0;
    uint64_t size = 0;
    uint32_t cycles = 0;
};

std::optional<BlockLine> parse_block(std::string_view text) {
    BlockLine line;
    if (!parse(take_last(text), line.cycles) || !parse(take_last(text), line.size))
        return {};
    const std::string_view address = take_last(text);
    if (!address.starts_with("0x") || !parse(address.substr(2), line.address, 16))
        return {};
    line.origin = text;
    return line;
}

struct Origin {
    std::string_view what; // "LK", "WO", "WU"
    Site site;
};

std::optional<Origin> parse_origin(std::string_view text) {
    Origin origin;
    origin.site.type = take_last(text);
    origin.what = take_last(text);
    if (!parse(take_last(text), origin.site.line) || text.empty())
        return {};
    origin.site.file = text;
    for (const char *what : {"LK", "WO", "WU"})
        if (origin.what == what)
            return origin;
    return {};
}

class TextReader {
public:
    TextReader(Report &report, const std::string &name)
        : report_(report), name_(name), complaints_(report, name) {}

    void read(Lines &lines) {
        while (lines.next()) {
            line_ = lines.number();
            if (lines.is_too_long() && inside_)
                complain("a line is too long");
            else if (!lines.is_too_long())
                read_line(lines.line());
        }
        end_damage();
        end_cycle();
        if (inside_)
            complain("the report is cut off here");
        if (processes_ == 0)
            complain("no report in this file");
    }

private:
    void complain(std::string_view text) { complaints_.add(line_, text); }

    Process &process() { return report_.processes.back(); }
    Cycle &cycle() { return process().cycles.back(); }

    void begin_process() {
        ++processes_;
        report_.processes.emplace_back().name = report_.text(name_);
        damaged_.clear();
    }

    void read_line(std::string_view line) {
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (line.starts_with(cycle_head))
            begin_cycle(line.substr(cycle_head.size()));
        else if (inside_)
            read_inside(line);
        else
            read_outside(line);
    }

    void begin_cycle(std::string_view rest) {
        uint32_t number = 0;
        if (!parse(rest.substr(0, rest.find('>')), number)) {
            complain("no cycle number");
            return;
        }
        if (inside_)
            complain("a report before this one is cut off");
        end_damage();
        end_cycle();
        // Cycles count from 1 again when the checker is switched on again.
        if (processes_ == 0 || (!process().cycles.empty() && cycle().number >= number))
            begin_process();
        process().cycles.push_back({number, {}, false, {}});
        ++cycles_;
        inside_ = true;
        counts_ = false;
    }

    void end_cycle() {
        if (processes_ != 0 && !process().cycles.empty())
            cycle().holdings.shrink_to_fit();
    }

    void read_inside(std::string_view line) {
        if (line == "}") {
            inside_ = false;
        } else if (line.starts_with("#### ")) {
            counts_ = true;
            if (line.starts_with("#### Since reset: "))
                read_total(line.substr(18));
        } else if (!counts_ && !line.empty() && line != "{") {
            read_block(line);
        }
    }

    // "82900 bytes held by 9 allocations ####"
    void read_total(std::string_view text) {
        constexpr std::string_view between = " bytes held by ";
        const size_t at = text.find(between);
        Counter &live = cycle().live;
        if (at == std::string_view::npos || !parse(text.substr(0, at), live.bytes)) {
            complain("no total");
            return;
        }
        text.remove_prefix(at + between.size());
        if (!parse(text.substr(0, text.find(' ')), live.blocks))
            complain("no total");
    }

    void read_block(std::string_view line) {
        const std::optional<BlockLine> block = parse_block(line);
        const std::optional<Origin> origin = block ? parse_origin(block->origin) : std::nullopt;
        if (!origin || origin->what != "LK") {
            complain("not a report line: " + std::string(line));
            return;
        }
        Holding &holding = holding_of(report_.site_number(origin->site));
        holding.held += {1, block->size};
        holding.oldest = std::max(holding.oldest, block->cycles);
        holding.largest = std::max(holding.largest, block->size);
    }

    Holding &holding_of(uint32_t site) {
        if (site >= latest_.size())
            latest_.resize(site + 1);
        Latest &latest = latest_[site];
        if (latest.cycle != cycles_) {
            latest = {cycles_, static_cast<uint32_t>(cycle().holdings.size())};
            cycle().holdings.push_back({site, 0, {}, 0});
        }
        return cycle().holdings[latest.holding];
    }

    // A damaged block, with its stack trace behind it; what programs print goes by.
    void read_outside(std::string_view line) {
        if (in_damage_ && is_trace_line(line)) {
            trace_.emplace_back(report_.text(line));
            return;
        }
        if (line == "------")
            end_damage();
        const std::optional<BlockLine> block = parse_block(line);
        const std::optional<Origin> origin = block ? parse_origin(block->origin) : std::nullopt;
        if (!origin || origin->what == "LK")
            return;
        end_damage();
        if (processes_ == 0)
            begin_process();
        damage_ = {origin->what == "WO", 0, block->cycles, block->address, block->size};
        damage_site_ = {
            report_.text(origin->site.file), origin->site.line, report_.text(origin->site.type), {}};
        in_damage_ = true;
    }

    // A block that several verifications found counts once.
    void end_damage() {
        if (!in_damage_)
            return;
        in_damage_ = false;
        damage_site_.trace = trace_;
        damage_.site = report_.site_number(damage_site_);
        trace_.clear();
        const auto [known, is_new] =
            damaged_.try_emplace(damage_.address, static_cast<uint32_t>(process().damages.size()));
        if (is_new)
            process().damages.push_back(damage_);
        else
            process().damages[known->second] = damage_;
    }

    struct Latest {
        uint32_t cycle = 0;
        uint32_t holding = 0; // in that cycle
    };

    Report &report_;
    const std::string &name_;
    Complaints complaints_;
    uint64_t line_ = 0;
    size_t processes_ = 0;
    uint32_t cycles_ = 0;        // of all processes
    bool inside_ = false;        // between a cycle's braces
    bool counts_ = false;        // behind its blocks
    std::vector<Latest> latest_; // by site
    bool in_damage_ = false;     // its stack trace may follow
    Damage damage_;
    Site damage_site_;
    std::vector<std::string_view> trace_;
    std::unordered_map<uint64_t, uint32_t> damaged_; // the process's damages, by address
};

} // namespace

void read_text(Report &report, const std::string &name, Lines &lines) {
    TextReader(report, name).read(lines);
}
