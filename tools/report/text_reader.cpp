#include "tools/report/reader.h"

#include <algorithm>
#include <charconv>
#include <optional>

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
    std::string_view origin; // all ahead of the address: one text for each site
    std::string_view address;
    uint64_t size = 0;
    uint32_t cycles = 0;
};

std::optional<BlockLine> parse_block(std::string_view text) {
    BlockLine line;
    uint64_t address = 0;
    if (!parse(take_last(text), line.cycles) || !parse(take_last(text), line.size))
        return {};
    line.address = take_last(text);
    if (!line.address.starts_with("0x") || !parse(line.address.substr(2), address, 16))
        return {};
    line.origin = text;
    return line;
}

struct Origin {
    std::string_view what; // "LK", "WO", "WU"
    Place place;
};

std::optional<Origin> parse_origin(std::string_view text) {
    Origin origin;
    origin.place.type = take_last(text);
    origin.what = take_last(text);
    if (!parse(take_last(text), origin.place.line) || text.empty())
        return {};
    origin.place.file = text;
    for (const char *what : {"LK", "WO", "WU"})
        if (origin.what == what)
            return origin;
    return {};
}

// "/usr/bin/p(function+0x12) [0x55ee]"
bool is_frame(std::string_view line) {
    return line.ends_with(']') && line.find(" [0x") != std::string_view::npos;
}

class TextReader {
public:
    TextReader(Report &report, const std::string &name) : report_(report), name_(name) {}

    void read(std::string_view text) {
        while (!text.empty()) {
            const size_t end = text.find('\n');
            ++line_;
            read_line(text.substr(0, end));
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        }
        end_damage();
        if (inside_)
            complain("the report is cut off here");
        if (processes_ == 0)
            complain("no report in this file");
    }

private:
    void complain(std::string text) { report_.problems.push_back({name_, line_, std::move(text)}); }

    Process &process() { return report_.processes.back(); }
    Cycle &cycle() { return process().cycles.back(); }

    void begin_process() {
        ++processes_;
        report_.processes.push_back({name_, {}, {}, {}, {}});
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
            complain("a report ahead of this one is cut off");
        end_damage();
        // Cycles count from 1 again when the checker is switched on again.
        if (processes_ == 0 || (!process().cycles.empty() && cycle().number >= number))
            begin_process();
        process().cycles.push_back({number, {}, {}});
        held_by_.clear();
        inside_ = true;
        counts_ = false;
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
        Holding *holding = block ? holding_of(block->origin) : nullptr;
        if (holding == nullptr) {
            complain("no line of a report: " + std::string(line));
            return;
        }
        holding->held += {1, block->size};
        holding->oldest = std::max(holding->oldest, block->cycles);
        holding->largest = std::max(holding->largest, block->size);
    }

    Holding *holding_of(std::string_view text) {
        if (const auto known = held_by_.find(text); known != held_by_.end())
            return &cycle().holdings[known->second];
        std::optional<Origin> origin = parse_origin(text);
        if (!origin || origin->what != "LK")
            return nullptr;
        held_by_.emplace(text, cycle().holdings.size());
        cycle().holdings.push_back({report_.place(std::move(origin->place)), {}, 0, 0});
        return &cycle().holdings.back();
    }

    // A damaged block, with its call chain behind it; what programs print goes by.
    void read_outside(std::string_view line) {
        if (chain_ != nullptr && is_frame(line)) {
            chain_->emplace_back(line);
            return;
        }
        if (line == "------")
            end_damage();
        const std::optional<BlockLine> block = parse_block(line);
        std::optional<Origin> origin = block ? parse_origin(block->origin) : std::nullopt;
        if (!origin || origin->what == "LK")
            return;
        end_damage();
        if (processes_ == 0)
            begin_process();
        damage_ = {std::string(origin->what), 0, std::string(block->address), block->size,
                   block->cycles};
        damaged_ = std::move(origin->place);
        chain_ = &damaged_.chain;
    }

    // A block that several verifications found counts once.
    void end_damage() {
        if (chain_ == nullptr)
            return;
        chain_ = nullptr;
        damage_.place = report_.place(std::move(damaged_));
        for (Damage &known : process().damages)
            if (known.address == damage_.address) {
                known = damage_;
                return;
            }
        process().damages.push_back(damage_);
    }

    Report &report_;
    const std::string &name_;
    size_t line_ = 0;
    size_t processes_ = 0;
    bool inside_ = false;                                  // between a cycle's braces
    bool counts_ = false;                                  // behind its blocks
    std::unordered_map<std::string_view, size_t> held_by_; // holdings of the cycle, by origin
    Damage damage_;
    Place damaged_;
    std::vector<std::string> *chain_ = nullptr;
};

} // namespace

void read_text(Report &report, const std::string &name, std::string_view text) {
    TextReader(report, name).read(text);
}
