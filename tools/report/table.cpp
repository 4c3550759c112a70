#include "tools/report/table.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/finding.h"
#include "tools/report/holder_lines.h"

#include <algorithm>
#include <array>
#include <iomanip>

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *red = "\033[31m";
constexpr const char *cyan = "\033[36m";
constexpr const char *faint = "\033[2m";
constexpr const char *plain = "\033[0m";
constexpr size_t gap = 2; // between columns

struct Column {
    std::string heading;
    std::vector<std::string> cells; // one a row

    size_t width() const {
        size_t widest = width_of(heading);
        for (const std::string &cell : cells)
            widest = std::max(widest, width_of(cell));
        return widest;
    }
};

std::string signed_number(int64_t number) {
    return (number < 0 ? "" : "+") + std::to_string(number);
}

class Table {
public:
    Table(std::ostream &out, const Report &report, const TableStyle &style, Names &names)
        : out_(out), report_(report), style_(style), names_(names), histories_(report, style.order) {
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
        constexpr size_t indent = 4;
        for (const StackFrame &frame : names_.frames(trace)) {
            out_ << std::string(indent, ' ');
            print_with_place(frame.text(left_behind(indent, style_.width)));
        }
    }

    void print_with_place(const std::string &text) {
        const size_t at = text.find(" at ");
        if (at == std::string::npos)
            out_ << text << '\n';
        else
            out_ << text.substr(0, at) << in(cyan) << text.substr(at) << in(plain) << '\n';
    }

    void print_sites() {
        const std::span<const SiteHistory> all = histories_.sites(),
                                           shown = all.first(std::min(all.size(), style_.top));
        const std::vector<Column> columns = columns_of(shown);
        size_t taken = 0;
        out_ << in(bold);
        for (const Column &column : columns) {
            out_ << std::setw(static_cast<int>(column.width() + gap)) << column.heading;
            taken += column.width() + gap;
        }
        out_ << "  SITE" << in(plain) << '\n';
        for (size_t row = 0; row < shown.size(); ++row)
            print_row(columns, row, left_behind(taken + gap, style_.width), shown[row]);
        if (shown.size() < all.size())
            out_ << in(faint) << "  and " << counted(all.size() - shown.size(), "more site") << in(plain)
                 << '\n';
        for (const SiteHistory &site : shown.first(std::min(shown.size(), size_t{5})))
            print_site_trace(site);
        out_ << '\n';
    }

    bool grows() const { return histories_.cycles() > 1; }

    std::vector<Column> columns_of(std::span<const SiteHistory> sites) const {
        constexpr uint32_t widest_line = 24, narrow_line = 8;
        std::vector<Column> columns;
        const auto add = [&](const char *heading, const auto &text) {
            Column &column = columns.emplace_back(heading);
            for (const SiteHistory &site : sites)
                column.cells.push_back(text(site));
        };
        const auto number = [](uint64_t value) { return std::to_string(value); };
        add("BYTES", [&](const SiteHistory &site) { return number(site.held.bytes); });
        add("BLOCKS", [&](const SiteHistory &site) { return number(site.held.blocks); });
        add("AGE", [&](const SiteHistory &site) { return number(site.oldest); });
        if (histories_.were_searched())
            add("LOST", [&](const SiteHistory &site) { return number(site.lost.bytes); });
        if (style_.order == Order::peak)
            add("PEAK", [&](const SiteHistory &site) { return number(site.peak); });
        if (!grows())
            return columns;
        add("GROWTH", [&](const SiteHistory &site) { return signed_number(site.growth); });
        const bool is_wide = style_.width == any_width || style_.width > 120;
        add("", [&](const SiteHistory &site) {
            return sparkline(site.bytes, histories_.cycles(), is_wide ? widest_line : narrow_line);
        });
        return columns;
    }

    void print_row(std::span<const Column> columns, size_t row, size_t room, const SiteHistory &site) {
        for (const Column &column : columns) {
            const std::string &cell = column.cells[row];
            out_ << std::string(column.width() + gap - width_of(cell), ' ') << cell;
        }
        out_ << std::string(gap, ' ');
        print_with_place(names_.name(report_.site(site.site)).fitted(room));
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
        std::ranges::for_each(describe_path(held_by, report_, names_), print);
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
    Names &names_;
    Histories histories_;
};

} // namespace

void print_table(std::ostream &out, const Report &report, const TableStyle &style, Names &names) {
    Table(out, report, style, names).print();
}

std::string sparkline(std::span<const Point> bytes, uint32_t cycles, uint32_t room) {
    constexpr uint32_t most = 64;
    static constexpr const char *levels[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const uint32_t width = std::min({cycles, room, most});
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
