#include "tools/report/table.h"

#include "tools/common/counted.h"

#include <algorithm>
#include <iomanip>

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *red = "\033[31m";
constexpr const char *faint = "\033[2m";
constexpr const char *plain = "\033[0m";

class Table {
public:
    Table(std::ostream &out, const Report &report, const TableStyle &style, Symbolizer &symbolizer)
        : out_(out), report_(report), style_(style), symbolizer_(symbolizer) {}

    void print() {
        for (const Process &process : report_.processes) {
            print_stops(process);
            print_damages(process);
            print_descriptors(process);
        }
        const std::vector<Site> sites = sites_of(report_, style_.order);
        if (!sites.empty())
            print_sites(sites);
        print_total(sites);
    }

private:
    const char *in(const char *colour) const { return style_.colour ? colour : ""; }

    void print_heading(const Process &process, const std::string &text) {
        out_ << in(red) << text << in(plain) << " in " << process.name << '\n';
    }

    void print_chain(const std::vector<std::string> &chain, const std::string &heading = {}) {
        if (!heading.empty())
            out_ << "  " << heading << '\n';
        for (const std::string &place : chain)
            for (const SourceFrame &frame : symbolizer_.lookup(place))
                out_ << "    " << describe(place, frame)
                     << (frame.inlined ? std::string(in(faint)) + " (inlined)" + in(plain) : "") << '\n';
    }

    void print_stops(const Process &process) {
        for (const Stop &stop : process.stops) {
            print_heading(process, stop.text.substr(0, stop.text.find(" trace buffer")));
            print_chain(stop.chain, "released by");
            print_chain(stop.block, stop.is_double_free() ? "released before by" : "allocated by");
        }
    }

    void print_damages(const Process &process) {
        for (const Damage &damage : process.damages) {
            const Place &place = report_.places()[damage.place];
            print_heading(process, damage.defect + ": a block of " + std::to_string(damage.size) +
                                       " bytes at " + damage.address + " was written past its " +
                                       (damage.defect == "WO" ? "end" : "start"));
            out_ << "  allocated at " << name_of(place, symbolizer_) << '\n';
            print_chain(place.chain);
        }
    }

    void print_event(const DescriptorEvent &event) {
        print_chain(event.chain, event.type + " by " + event.who + " at " + event.time);
    }

    void print_descriptors(const Process &process) {
        for (const Descriptor &descriptor : process.descriptors) {
            if (!descriptor.alarm)
                continue;
            print_heading(process, "descriptor " + std::to_string(descriptor.number) +
                                       (descriptor.is_standard() ? ": traffic" : ": closed twice"));
            for (const DescriptorEvent &event : descriptor.events)
                print_event(event);
        }
        print_left_open(process);
    }

    // Those that one call chain opened go together.
    void print_left_open(const Process &process) {
        std::map<std::vector<std::string>, std::vector<const Descriptor *>> by_chain;
        for (const Descriptor &descriptor : process.descriptors)
            if (descriptor.is_left_open())
                by_chain[descriptor.events.back().chain].push_back(&descriptor);
        for (const auto &[chain, descriptors] : by_chain) {
            std::string numbers;
            for (const Descriptor *descriptor : descriptors)
                numbers += (numbers.empty() ? "" : ", ") + std::to_string(descriptor->number);
            print_heading(process, (descriptors.size() == 1 ? "descriptor" : "descriptors") +
                                       std::string(" left open: ") + numbers);
            print_event(descriptors.front()->events.back());
        }
    }

    void print_sites(const std::vector<Site> &sites) {
        const bool grows = cycles_of(report_) > 1;
        out_ << in(bold) << std::setw(14) << "BYTES" << std::setw(10) << "BLOCKS" << std::setw(8)
             << "AGE";
        if (grows)
            out_ << std::setw(14) << "GROWTH"
                 << "  ";
        out_ << "  SITE" << in(plain) << '\n';
        const size_t shown = std::min(sites.size(), style_.top);
        for (size_t i = 0; i < shown; ++i)
            print_site(sites[i], grows);
        if (shown < sites.size())
            out_ << in(faint) << "  and " << counted(sites.size() - shown, "site") << " more"
                 << in(plain) << '\n';
        for (size_t i = 0; i < std::min(shown, size_t{5}); ++i)
            print_site_chain(sites[i]);
        out_ << '\n';
    }

    void print_site(const Site &site, bool grows) {
        out_ << std::setw(14) << site.held.bytes << std::setw(10) << site.held.blocks << std::setw(8)
             << site.oldest;
        if (grows)
            out_ << std::setw(14) << std::showpos << site.growth() << std::noshowpos << "  "
                 << sparkline(site.series);
        out_ << "  " << name_of(report_.places()[site.place], symbolizer_) << '\n';
    }

    void print_site_chain(const Site &site) {
        const Place &place = report_.places()[site.place];
        if (place.chain.empty())
            return;
        out_ << '\n'
             << counted(site.held.bytes, "byte") << " in " << counted(site.held.blocks, "block")
             << " from\n";
        print_chain(place.chain);
    }

    void print_total(const std::vector<Site> &sites) {
        const Counter total = total_of(report_);
        out_ << in(bold) << "total: " << counted(total.bytes, "byte") << " in "
             << counted(total.blocks, "block") << in(plain) << "; " << counted(sites.size(), "site")
             << ", " << counted(cycles_of(report_), "cycle") << ", "
             << counted(report_.processes.size(), "process") << '\n';
    }

    std::ostream &out_;
    const Report &report_;
    const TableStyle &style_;
    Symbolizer &symbolizer_;
};

} // namespace

void print_table(std::ostream &out, const Report &report, const TableStyle &style,
                 Symbolizer &symbolizer) {
    Table(out, report, style, symbolizer).print();
}

std::string name_of(const Place &place, Symbolizer &symbolizer) {
    constexpr size_t most_callers = 2;
    const std::string type = " (" + place.type + ")";
    if (place.line != 0)
        return place.file + ":" + std::to_string(place.line) + type;
    if (place.chain.empty())
        return place.file + type;
    std::string name;
    for (size_t i = 0; i < std::min(place.chain.size(), 1 + most_callers); ++i) {
        const SourceFrame &frame = symbolizer.lookup(place.chain[i]).front();
        if (i > 0)
            name += " < ";
        name += frame.function.empty() ? place.chain[i] : frame.function;
        if (!frame.file.empty() && i == 0)
            name += " at " + frame.file + ":" + std::to_string(frame.line);
    }
    return name + type;
}

std::string sparkline(const std::vector<uint64_t> &series) {
    constexpr size_t most = 24;
    static constexpr const char *levels[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const uint64_t highest = std::max<uint64_t>(std::ranges::max(series), 1);
    const size_t width = std::min(series.size(), most);
    std::string text;
    for (size_t i = 0; i < width; ++i) {
        // Where there are more cycles than room, the highest of those that share a character.
        const auto first = series.begin() + static_cast<ptrdiff_t>(i * series.size() / width);
        const auto last = series.begin() + static_cast<ptrdiff_t>((i + 1) * series.size() / width);
        const double share =
            static_cast<double>(*std::max_element(first, last)) / static_cast<double>(highest);
        text += levels[static_cast<size_t>(share * 8 + (share > 0 ? 0.999 : 0))];
    }
    return text;
}
