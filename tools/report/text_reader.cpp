#include "tools/report/block_line.h"
#include "tools/report/complaints.h"
#include "tools/report/defect_reader.h"
#include "tools/report/reader.h"

#include <algorithm>

namespace {

constexpr std::string_view cycle_head = "-----------<cycle ";

class TextReader {
public:
    TextReader(Report &report, const std::string &name)
        : report_(report), name_(name), complaints_(report, name),
          defects_(report, [this]() -> Process & {
              if (processes_ == 0)
                  begin_process();
              return process();
          }) {}

    void read(Lines &lines) {
        while (lines.next()) {
            line_ = lines.number();
            if (lines.is_too_long() && inside_)
                complain("a line is too long");
            else if (!lines.is_too_long())
                read_line(lines.line());
        }
        defects_.end();
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
        defects_.forget();
    }

    void read_line(std::string_view line) {
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (line.starts_with(cycle_head))
            begin_cycle(line.substr(cycle_head.size()));
        else if (inside_)
            read_inside(line);
        else
            defects_.read(line);
    }

    void begin_cycle(std::string_view rest) {
        uint32_t number = 0;
        if (!parse_number(rest.substr(0, rest.find('>')), number)) {
            complain("no cycle number");
            return;
        }
        if (inside_)
            complain("a report before this one is cut off");
        defects_.end();
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
        if (at == std::string_view::npos || !parse_number(text.substr(0, at), live.bytes)) {
            complain("no total");
            return;
        }
        text.remove_prefix(at + between.size());
        if (!parse_number(text.substr(0, text.find(' ')), live.blocks))
            complain("no total");
    }

    void read_block(std::string_view line) {
        const std::optional<BlockLine> block = parse_block_line(line);
        if (!block || block->what != "LK") {
            complain("not a report line: " + std::string(line));
            return;
        }
        Holding &holding = holding_of(report_.site_number(block->site));
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
    DefectReader defects_;
};

} // namespace

void read_text(Report &report, const std::string &name, Lines &lines) {
    TextReader(report, name).read(lines);
}
