#include "tools/report/page_data.h"

#include "tools/report/finding.h"
#include "tools/report/holder_lines.h"
#include "tools/report/page_frames.h"
#include "tools/report/seen_sites.h"

#include <algorithm>

namespace {

constexpr size_t page_bytes = 8'000'000;    // of sites and what belongs to them
constexpr size_t finding_bytes = 1'500'000; // of these
// The columns by the order that they are for.
constexpr const char *orders[] = {"bytes", "growth", "blocks",    "age",
                                  "most",  "calls",  "allocated", "temporary"};

// Of what a process held of a site, in the order in which it is written.
constexpr const char *fields[] = {"process", "blocks",     "bytes",     "oldest", "largest",
                                  "most",    "lostBlocks", "lostBytes", "series"};
// And of what was allocated, where the reports have it.
constexpr const char *counts[] = {"allocatedBlocks", "allocatedBytes", "temporaryBlocks",
                                  "temporaryBytes"};

class PageData {
public:
    PageData(const Put &put, const Report &report, Names &names)
        : report_(report), names_(names), seen_(report), frames_(names), is_shown_(report.site_count()),
          put_([this, &put](std::string_view piece) {
              bytes_ += piece.size();
              put(piece);
          }),
          out_(put_) {}

    void put(Order order) {
        out_.open('{');
        out_.member("sort", orders[static_cast<size_t>(order)]);
        out_.open("fields", '[');
        for (const char *field : fields)
            out_.value(field);
        for (const char *field : counts)
            if (seen_.have_counts())
                out_.value(field);
        out_.close(']');
        put_counter("total", last_of(report_.processes));
        put_findings();
        put_sites();
        put_processes();
        frames_.put(out_);
        out_.close('}');
    }

private:
    size_t bytes() const { return bytes_ + frames_.bytes(); }

    template <class... Numbers> void values(const Numbers &...numbers) { (out_.value(numbers), ...); }

    void put_counter(std::string_view name, const Counter &counter) {
        out_.open(name, '[');
        values(counter.blocks, counter.bytes);
        out_.close(']');
    }

    void put_trace(const std::vector<uint32_t> &frames) {
        out_.open('[');
        for (const uint32_t frame : frames)
            out_.value(frame);
        out_.close(']');
    }

    uint32_t number_of(const Process &process) const {
        return static_cast<uint32_t>(std::min(static_cast<size_t>(&process - report_.processes.data()),
                                              seen_.processes().size() - 1));
    }

    // [process, is a fault, title, [[heading, trace], ...]]
    void put_finding(const Process &process, const Finding &finding) {
        out_.line();
        out_.open('[');
        values(number_of(process), finding.is_fault() ? 1 : 0, frames_.text(finding.title));
        out_.open('[');
        for (const Trail &trail : finding.trails) {
            out_.open('[');
            out_.value(frames_.text(trail.heading));
            put_trace(frames_.trace(trail.trace));
            out_.close(']');
        }
        out_.close(']');
        out_.close(']');
    }

    void put_findings() {
        uint64_t left_out = 0;
        out_.open("findings", '[');
        for (const Process &process : report_.processes)
            each_finding(report_, process, [&](const Finding &finding) {
                if (bytes() < finding_bytes)
                    put_finding(process, finding);
                else
                    ++left_out;
            });
        out_.close(']');
        out_.member("findingsLeftOut", left_out);
    }

    void put_series(const std::vector<Point> &changes) {
        out_.open('[');
        for (const Point &point : changes)
            values(point.cycle, point.bytes);
        out_.close(']');
    }

    void put_holders(const HeldBy &held_by) {
        const auto put_line = [&](const std::string &line) { out_.value(frames_.text(line)); };
        out_.open('[');
        out_.open('[');
        for (const Holder &holder : held_by.roots)
            put_line(describe(holder.root, holder.held));
        if (held_by.others.blocks != 0)
            put_line(describe("others", held_by.others));
        out_.close(']');
        out_.open('[');
        for (const std::string &line : describe_path(held_by, report_, names_))
            put_line(line);
        out_.close(']');
        out_.close(']');
    }

    // Some processes know what holds a site: the members of their own row are followed by that.
    void put_seen(const SeenSite &seen) {
        out_.open('[');
        values(seen.process, seen.held.blocks, seen.held.bytes, seen.oldest, seen.largest, seen.most,
               seen.lost.blocks, seen.lost.bytes);
        put_series(seen.bytes);
        if (seen_.have_counts())
            values(seen.allocated.blocks, seen.allocated.bytes, seen.temporary.blocks,
                   seen.temporary.bytes);
        if (seen.held_by != nullptr)
            put_holders(*seen.held_by);
        out_.close(']');
    }

    // [label, name, type, is cut, trace, [by process, ...]]
    void put_site(uint32_t number) {
        const Site &site = report_.site(number);
        out_.line();
        out_.open('[');
        const SiteName name = names_.name(site);
        values(frames_.text(name.label()), frames_.text(name.text()), frames_.text(site.type),
               is_cut(site.trace) ? 1 : 0);
        put_trace(frames_.trace(site));
        out_.open('[');
        for (const SeenSite &seen : seen_.in_processes(number))
            put_seen(seen);
        out_.close(']');
        out_.close(']');
    }

    void put_sites() {
        size_t shown = 0;
        out_.open("sites", '[');
        for (; shown < seen_.within_reach() && bytes() < page_bytes; ++shown) {
            is_shown_[seen_.ranked()[shown]] = true;
            put_site(seen_.ranked()[shown]);
        }
        out_.close(']');
        const std::span left_out = std::span(seen_.ranked()).subspan(shown);
        uint64_t most = 0;
        for (const uint32_t site : left_out)
            most = std::max(most, seen_.most_of(site));
        out_.open("leftOut", '{');
        out_.member("sites", left_out.size());
        out_.member("most", most);
        out_.close('}');
    }

    // What the page has no sites for, at last.
    void put_left_out(std::span<const Process> processes) {
        uint64_t sites = 0;
        Counter held, lost;
        for (const Process &process : processes)
            if (!process.cycles.empty())
                for (const Holding &holding : process.cycles.back().holdings)
                    if (!is_shown_[holding.site]) {
                        ++sites;
                        held += holding.held;
                        lost += holding.lost;
                    }
        out_.open("leftOut", '[');
        values(sites, held.blocks, held.bytes, lost.blocks, lost.bytes);
        out_.close(']');
    }

    static Counter last_of(std::span<const Process> processes) {
        Counter last;
        for (const Process &process : processes)
            if (!process.cycles.empty())
                last += process.cycles.back().live;
        return last;
    }

    // [number, time, blocks, bytes]
    void put_cycle(uint32_t number, uint64_t time, const Counter &live) {
        out_.open('[');
        values(number, time, live.blocks, live.bytes);
        out_.close(']');
    }

    void put_process(std::span<const Process> processes, const SeenProcess &seen) {
        const Process &first = processes.front();
        out_.line();
        out_.open('{');
        out_.member("name", frames_.text(processes.size() > 1
                                             ? std::to_string(processes.size()) + " more processes"
                                             : std::string(first.name)));
        out_.member("count", processes.size());
        out_.member("allCycles", seen.is_rest ? 1 : first.cycles.size());
        bool searched = false;
        for (const Process &process : processes)
            searched = searched || (!process.cycles.empty() && process.cycles.back().searched);
        out_.member("searched", searched);
        out_.open("cycles", '[');
        if (seen.is_rest) {
            put_cycle(1, 0, last_of(processes));
        } else {
            for (const uint32_t cycle : seen.shown)
                put_cycle(cycle + 1, first.cycles[cycle].time, first.cycles[cycle].live);
        }
        out_.close(']');
        put_left_out(processes);
        out_.close('}');
    }

    void put_processes() {
        const std::span<const Process> all = report_.processes;
        out_.open("processes", '[');
        for (size_t i = 0; i < seen_.processes().size(); ++i)
            put_process(seen_.processes()[i].is_rest ? all.subspan(i) : all.subspan(i, 1),
                        seen_.processes()[i]);
        out_.close(']');
    }

    const Report &report_;
    Names &names_;
    const SeenSites seen_;
    PageFrames frames_;
    std::vector<bool> is_shown_; // by site
    size_t bytes_ = 0;           // written
    const Put put_;
    JsonWriter out_;
};

} // namespace

void put_page_data(const Put &put, const Report &report, Order order, Names &names) {
    PageData(put, report, names).put(order);
}
