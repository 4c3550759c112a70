#include "tools/report/table.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/finding.h"
#include "tools/report/site_name.h"

#include <algorithm>
#include <array>
#include <iomanip>

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *red = "\033[31m";
constexpr const char *faint = "\033[2m";
constexpr const char *plain = "\033[0m";

class Table {
public:
    Table(std::ostream &out, const Report &report, const TableStyle &style, Symbolizer &symbolizer)
        : out_(out), report_(report), style_(style), symbolizer_(symbolizer),
          histories_(report, style.order) {
        if (style.only_lost)
            histories_.keep_lost();
    }

    void print() {
        for (const Process &process : report_.processes)
            each_finding(report_, process,
                         [&](const Finding &finding) { print_finding(process, finding); });
        if (!histories_.sites().empty())
            print_sites();
        print_total();
    }

private:
    const char *in(const char *colour) const { return style_.colour ? colour : ""; }

    void print_finding(const Process &process, const Finding &finding) {
        out_ << in(red) << printable(finding.title) << in(plain) << " in " << printable(process.name)
             << '\n';
        for (const Trail &trail : finding.trails) {
            out_ << "  " << printable(trail.heading) << '\n';
            print_trace(trail.trace);
        }
    }

    void print_trace(Trace trace) {
        for (const std::string_view pc : trace)
            for (const SourceFrame &frame : symbolizer_.lookup(pc))
                out_ << "    " << printable(describe(pc, frame))
                     << (frame.inlined ? std::string(in(faint)) + " (inlined)" + in(plain) : "") << '\n';
    }

    void print_sites() {
        const std::vector<SiteHistory> &sites = histories_.sites();
        out_ << in(bold) << std::setw(14) << "BYTES" << std::setw(10) << "BLOCKS" << std::setw(8)
             << "AGE";
        if (histories_.were_searched())
            out_ << std::setw(14) << "LOST";
        if (grows())
            out_ << std::setw(14) << "GROWTH"
                 << "  ";
        out_ << "  SITE" << in(plain) << '\n';
        const size_t shown = std::min(sites.size(), style_.top);
        for (size_t i = 0; i < shown; ++i)
            print_site(sites[i]);
        if (shown < sites.size())
            out_ << in(faint) << "  and " << counted(sites.size() - shown, "more site") << in(plain)
                 << '\n';
        for (size_t i = 0; i < std::min(shown, size_t{5}); ++i)
            print_site_trace(sites[i]);
        out_ << '\n';
    }

    bool grows() const { return histories_.cycles() > 1; }

    void print_site(const SiteHistory &site) {
        out_ << std::setw(14) << site.held.bytes << std::setw(10) << site.held.blocks << std::setw(8)
             << site.oldest;
        if (histories_.were_searched())
            out_ << std::setw(14) << site.lost.bytes;
        if (grows())
            out_ << std::setw(14) << std::showpos << site.growth << std::noshowpos << "  "
                 << sparkline(site.bytes, histories_.cycles());
        out_ << "  " << printable(name_of(report_.site(site.site), symbolizer_)) << '\n';
    }

    void print_site_trace(const SiteHistory &site) {
        const Trace trace = report_.site(site.site).trace;
        if (trace.empty())
            return;
        out_ << '\n'
             << counted(site.held.bytes, "byte") << " in " << counted(site.held.blocks, "block")
             << " from\n";
        print_trace(trace);
        if (site.held_by != nullptr)
            print_holders(*site.held_by);
    }

    void print_holders(const HeldBy &held_by) {
        const auto print = [this](const std::string &line) {
            out_ << "    " << printable(line) << '\n';
        };
        out_ << "  held by\n";
        for (const Holder &holder : held_by.roots)
            print(describe(holder.root, holder.held));
        if (held_by.others.blocks != 0)
            print(describe("others", held_by.others));
        if (held_by.path.size() < 2)
            return;
        out_ << "  which leads, for one, to\n";
        std::ranges::for_each(describe_path(held_by, report_, symbolizer_), print);
    }

    void print_total() {
        const Counter total = total_of(report_);
        out_ << in(bold) << "total: " << counted(total.bytes, "byte") << " in "
             << counted(total.blocks, "block") << in(plain) << "; "
             << counted(histories_.sites().size(), "site") << ", "
             << counted(histories_.cycles(), "cycle") << ", "
             << counted(report_.processes.size(), "process") << '\n';
    }

    std::ostream &out_;
    const Report &report_;
    const TableStyle &style_;
    Symbolizer &symbolizer_;
    Histories histories_;
};

} // namespace

void print_table(std::ostream &out, const Report &report, const TableStyle &style,
                 Symbolizer &symbolizer) {
    Table(out, report, style, symbolizer).print();
}

std::string sparkline(std::span<const Point> bytes, uint32_t cycles) {
    constexpr uint32_t most = 24;
    static constexpr const char *levels[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const uint32_t width = std::min(cycles, most);
    // Where there are more cycles than room, the highest of those that share a character.
    std::array<uint64_t, most> columns{};
    uint64_t highest = 1;
    for (const Point &point : bytes) {
        // The last column that begins at the cycle or before.
        const uint64_t column = ((point.cycle + uint64_t{1}) * width - 1) / cycles;
        columns[column] = std::max(columns[column], point.bytes);
        highest = std::max(highest, point.bytes);
    }
    std::string text;
    for (uint32_t i = 0; i < width; ++i) {
        const double share = static_cast<double>(columns[i]) / static_cast<double>(highest);
        text += levels[static_cast<size_t>(share * 8 + (share > 0 ? 0.999 : 0))];
    }
    return text;
}
