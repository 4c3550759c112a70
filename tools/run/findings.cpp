#include "tools/run/findings.h"

#include "tools/common/counted.h"

#include <algorithm>
#include <map>
#include <span>
#include <tuple>

namespace {

bool matches_frame(const std::string &pattern, const std::string &frame, Symbolizer &symbolizer) {
    if (matches_pattern(pattern, module_of(frame)))
        return true;
    return std::ranges::any_of(symbolizer.lookup(frame), [&](const SourceFrame &source) {
        return matches_pattern(pattern, source.function) || matches_pattern(pattern, source.file);
    });
}

// Without call chains, what stands for the source file.
std::vector<std::string> chain_of(const Place &place) {
    return place.chain.empty() ? std::vector{place.file} : place.chain;
}

void add_blocks(const Report &report, const Process &process, std::vector<Finding> &blocks) {
    if (!process.cycles.empty())
        for (const Holding &holding : process.cycles.back().holdings)
            blocks.push_back({"left",
                              holding.held.blocks,
                              holding.held.bytes,
                              chain_of(report.places()[holding.place]),
                              {}});
    for (const Damage &damage : process.damages)
        blocks.push_back(
            {damage.defect == "WO" ? "written past the end (WO)" : "written ahead of the start (WU)",
             1,
             damage.size,
             chain_of(report.places()[damage.place]),
             {}});
}

Finding alarm_of(const Descriptor &descriptor) {
    const auto &events = descriptor.events;
    if (descriptor.is_standard() || events.size() < 2)
        return {"standard descriptor", 1, 0, events.back().chain, {}};
    return {"closed twice", 1, 0, events.back().chain, events[events.size() - 2].chain};
}

void add_descriptors(const Process &process, std::vector<Finding> &descriptors) {
    std::map<std::vector<std::string>, Finding> left_open;
    for (const Descriptor &descriptor : process.descriptors) {
        const std::vector<std::string> &chain = descriptor.events.back().chain;
        if (descriptor.alarm)
            descriptors.push_back(alarm_of(descriptor));
        else if (descriptor.is_left_open())
            ++left_open.try_emplace(chain, Finding{"open", 0, 0, chain, {}}).first->second.count;
    }
    for (const auto &[chain, finding] : left_open)
        descriptors.push_back(finding);
}

// A child of fork reports what its parent holds, too: chains count once, at their most.
void merge(std::vector<Finding> &findings) {
    std::map<std::pair<std::string, std::vector<std::string>>, Finding> chains;
    for (Finding &finding : findings) {
        Finding &known = chains[{finding.what, finding.chain}];
        if (std::pair(finding.bytes, finding.count) >= std::pair(known.bytes, known.count))
            known = std::move(finding);
    }
    findings.clear();
    for (auto &[chain, finding] : chains)
        findings.push_back(std::move(finding));
    // What is wrong for certain comes first, then by size.
    std::ranges::stable_sort(findings, [](const Finding &left, const Finding &right) {
        const auto rank = [](const Finding &finding) {
            return finding.what == "left" || finding.what == "open";
        };
        return std::tuple(rank(left), right.bytes, right.count) <
               std::tuple(rank(right), left.bytes, left.count);
    });
}

void print_chain(std::ostream &out, const std::vector<std::string> &chain, Symbolizer &symbolizer) {
    constexpr size_t most_frames = 4;
    for (size_t at = 0; at < std::min(chain.size(), most_frames); ++at) {
        const std::vector<SourceFrame> &frames = symbolizer.lookup(chain[at]);
        for (const SourceFrame &frame : frames)
            out << "    " << describe(chain[at], frame) << '\n';
        if (frames.back().function == "main")
            return; // what called it is the same for all
    }
}

void print_findings(std::ostream &out, const std::vector<Finding> &findings, const char *noun,
                    Symbolizer &symbolizer) {
    constexpr size_t most_findings = 5;
    for (size_t i = 0; i < std::min(findings.size(), most_findings); ++i) {
        out << "  " << findings[i].what << ": " << counted(findings[i].count, noun);
        if (findings[i].bytes != 0)
            out << ", " << counted(findings[i].bytes, "byte");
        out << '\n';
        print_chain(out, findings[i].chain, symbolizer);
        if (!findings[i].before.empty()) {
            out << "   and before by\n";
            print_chain(out, findings[i].before, symbolizer);
        }
    }
    if (findings.size() > most_findings)
        out << "  and " << counted(findings.size() - most_findings, "site") << " more\n";
}

} // namespace

Findings::Findings(const Report &report) : processes_(report.processes.size()) {
    for (const Process &process : report.processes) {
        add_blocks(report, process, blocks_);
        add_descriptors(process, descriptors_);
        stops_.insert(stops_.end(), process.stops.begin(), process.stops.end());
    }
    merge(blocks_);
    merge(descriptors_);
}

void Findings::suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer) {
    std::erase_if(blocks_, [&](const Finding &finding) {
        if (finding.what != "left")
            return false;
        for (Suppression &suppression : suppressions) {
            const auto frames =
                std::span(finding.chain).first(suppression.innermost ? 1 : finding.chain.size());
            const bool matches = std::ranges::any_of(frames, [&](const std::string &frame) {
                return matches_frame(suppression.pattern, frame, symbolizer);
            });
            if (!matches)
                continue;
            suppression.blocks += finding.count;
            suppression.bytes += finding.bytes;
            return true;
        }
        return false;
    });
}

void Findings::print(std::ostream &out, Symbolizer &symbolizer) const {
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    for (const Finding &finding : blocks_) {
        blocks += finding.count;
        bytes += finding.bytes;
    }
    out << "k42mc: " << counted(blocks, "block") << ", " << counted(bytes, "byte") << " at "
        << counted(blocks_.size(), "site") << " in " << counted(processes_, "process") << '\n';
    print_findings(out, blocks_, "block", symbolizer);
    if (!descriptors_.empty()) {
        out << "k42mc: descriptors\n";
        print_findings(out, descriptors_, "descriptor", symbolizer);
    }
    for (const Stop &stop : stops_) {
        out << "k42mc: process " << stop.process
            << " was stopped: " << stop.text.substr(0, stop.text.find(" trace buffer"))
            << "\n  released by\n";
        print_chain(out, stop.chain, symbolizer);
        out << (stop.is_double_free() ? "  released before by\n" : "  allocated by\n");
        print_chain(out, stop.block, symbolizer);
    }
}
