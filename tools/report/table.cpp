#include "tools/report/table.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/columns.h"
#include "tools/report/finding.h"
#include "tools/report/holder_lines.h"

#include <algorithm>

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *red = "\033[31m";
constexpr const char *cyan = "\033[36m";
constexpr const char *faint = "\033[2m";
constexpr const char *plain = "\033[0m";

class Table {
public:
    Table(std::ostream &out, const Report &report, const TableStyle &style, Names &names)
        : out_(out), report_(report), style_(style), names_(names), histories_(report, style.order) {
        if (style.only_lost)
            histories_.keep_lost();
        if (!is_by_counts(style.order))
            histories_.drop_idle();
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
        const std::vector<Column> columns = columns_of(histories_, shown, style_.order, style_.width);
        const std::string heading = heading_of(columns);
        out_ << in(bold) << heading << "SITE" << in(plain) << '\n';
        for (size_t row = 0; row < shown.size(); ++row) {
            out_ << row_of(columns, row);
            print_with_place(names_.name(report_.site(shown[row].site))
                                 .fitted(left_behind(width_of(heading), style_.width)));
        }
        if (shown.size() < all.size())
            out_ << in(faint) << "  and " << counted(all.size() - shown.size(), "more site") << in(plain)
                 << '\n';
        for (const SiteHistory &site : shown.first(std::min(shown.size(), size_t{5})))
            print_site_trace(site);
        out_ << '\n';
    }

    void print_site_trace(const SiteHistory &site) {
        const Trace trace = report_.site(site.site).trace;
        if (trace.empty())
            return;
        out_ << '\n' << amount_of(site, style_.order) << " from\n";
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
