#include "findings.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <span>
#include <tuple>

namespace {

using Json = nlohmann::json;

std::vector<std::string> chain_of(const Json &line, const char *member = "chain") {
    return line.at(member).get<std::vector<std::string>>();
}

Finding finding_of(const Json &line, std::string what) {
    const bool site = line.at("kind") == "site";
    Finding finding{std::move(what), 1, 0, chain_of(line), {}};
    if (site)
        finding.count = line.at("blocks").get<uint64_t>();
    finding.bytes = line.at(site ? "bytes" : "size").get<uint64_t>();
    if (finding.chain.empty()) // no call chains were asked for
        finding.chain.push_back(line.at("file").get<std::string>());
    return finding;
}

// What the last report of one process says.
struct Report {
    std::vector<Finding> blocks;
    std::vector<Finding> descriptors;
    std::vector<Defect> defects;
};

// The descriptor checker's own records of what it watches.
bool is_history(const Json &site) {
    return site.at("file") == "common/lib/libk42mc/k42mc_ds";
}

bool is_standard(const Json &descriptor) {
    return descriptor.at("descriptor") <= 2;
}

Finding alarming_descriptor(const Json &line) {
    const Json &events = line.at("events");
    const bool twice = !is_standard(line) && events.size() > 1;
    Finding finding{twice ? "closed twice" : "standard descriptor", 1, 0, chain_of(events.back()), {}};
    if (twice)
        finding.before = chain_of(events[events.size() - 2]);
    return finding;
}

void add_open_descriptor(std::vector<Finding> &descriptors, const Json &event) {
    const std::vector<std::string> chain = chain_of(event);
    const auto known = std::ranges::find_if(descriptors, [&chain](const Finding &finding) {
        return finding.what == "open" && finding.chain == chain;
    });
    if (known != descriptors.end())
        ++known->count;
    else
        descriptors.push_back({"open", 1, 0, chain, {}});
}

void add_descriptor(std::vector<Finding> &descriptors, const Json &line) {
    const Json &newest = line.at("events").back();
    if (line.at("alarms") != 0)
        descriptors.push_back(alarming_descriptor(line));
    else if (line.at("open") == true && newest.at("type") != "CLOSE" && !is_standard(line))
        add_open_descriptor(descriptors, newest);
}

void add_line(Report &report, const Json &line) {
    const std::string kind = line.at("kind");
    if (kind == "cycle") // what stands before it is of an earlier report
        report = {};
    else if (kind == "site" && !is_history(line))
        report.blocks.push_back(finding_of(line, "left"));
    else if (kind == "damage")
        report.blocks.push_back(finding_of(line, line.at("defect")));
    else if (kind == "descriptor")
        add_descriptor(report.descriptors, line);
    else if (kind == "defect")
        report.defects.push_back(
            {line.at("pid"), line.at("text"), chain_of(line), chain_of(line, "block")});
}

template <class Sequence> void append(Sequence &to, const Sequence &more) {
    to.insert(to.end(), more.begin(), more.end());
}

std::string module_of(const std::string &frame) {
    return frame.substr(0, frame.rfind("+0x"));
}

bool matches_frame(const std::string &pattern, const std::string &frame, Symbolizer &symbolizer) {
    if (matches_pattern(pattern, module_of(frame)))
        return true;
    return std::ranges::any_of(symbolizer.lookup(frame), [&](const SourceFrame &source) {
        return matches_pattern(pattern, source.function) || matches_pattern(pattern, source.file);
    });
}

std::string described(const std::string &frame, const SourceFrame &source) {
    std::string text = source.function.empty() ? frame : source.function;
    if (!source.file.empty())
        text += " at " + source.file + ":" + std::to_string(source.line);
    else if (!source.function.empty())
        text += " (" + frame + ")";
    return text;
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
    for (size_t at = 0; at < std::min(chain.size(), most_frames); ++at)
        for (const SourceFrame &source : symbolizer.lookup(chain[at]))
            out << "    " << described(chain[at], source) << '\n';
}

void print_findings(std::ostream &out, const std::vector<Finding> &findings, const char *unit,
                    Symbolizer &symbolizer) {
    constexpr size_t most_findings = 5;
    for (size_t i = 0; i < std::min(findings.size(), most_findings); ++i) {
        out << "  " << findings[i].what << ": " << findings[i].count << ' ' << unit;
        if (findings[i].bytes != 0)
            out << ", " << findings[i].bytes << " bytes";
        out << '\n';
        print_chain(out, findings[i].chain, symbolizer);
        if (!findings[i].before.empty()) {
            out << "   and before by\n";
            print_chain(out, findings[i].before, symbolizer);
        }
    }
    if (findings.size() > most_findings)
        out << "  and " << findings.size() - most_findings << " sites more\n";
}

} // namespace

Findings::Findings(const std::string &folder) {
    for (const auto &file : std::filesystem::directory_iterator(folder))
        if (file.path().extension() == ".json")
            add_report(file.path());
    merge(blocks_);
    merge(descriptors_);
}

void Findings::add_report(const std::string &path) {
    std::ifstream file(path);
    Report report;
    for (std::string text; std::getline(file, text);) {
        const Json line = Json::parse(text, nullptr, false);
        if (line.is_object()) // else the process ended in mid-line
            add_line(report, line);
    }
    ++processes_;
    append(blocks_, report.blocks);
    append(descriptors_, report.descriptors);
    append(defects_, report.defects);
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
    out << "k42mc: " << blocks << " blocks, " << bytes << " bytes at " << blocks_.size() << " sites in "
        << processes_ << " processes\n";
    print_findings(out, blocks_, "blocks", symbolizer);
    if (!descriptors_.empty()) {
        out << "k42mc: descriptors\n";
        print_findings(out, descriptors_, "descriptors", symbolizer);
    }
    for (const Defect &defect : defects_) {
        out << "k42mc: process " << defect.process
            << " was stopped: " << defect.text.substr(0, defect.text.find(" trace buffer")) << '\n';
        out << "  released by\n";
        print_chain(out, defect.chain, symbolizer);
        out << (defect.text.starts_with("k42mc detected DF") ? "  released before by\n"
                                                             : "  allocated by\n");
        print_chain(out, defect.block, symbolizer);
    }
}
