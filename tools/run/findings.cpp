#include "findings.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <span>

namespace {

using Json = nlohmann::json;

constexpr std::string_view shim = "/libk42mc_preload.so+";

Finding finding_of(const Json &line, const char *what) {
    const bool site = line["kind"] == "site";
    Finding finding{what, 1, 0, {}};
    finding.blocks = site ? line["blocks"].get<uint64_t>() : 1;
    finding.bytes = line[site ? "bytes" : "size"].get<uint64_t>();
    for (const Json &frame : line["chain"])
        if (frame.get_ref<const std::string &>().find(shim) == std::string::npos)
            finding.chain.push_back(frame.get<std::string>());
    if (finding.chain.empty()) // no call chains were asked for
        finding.chain.push_back(line["file"].get<std::string>());
    return finding;
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

} // namespace

Findings::Findings(const std::string &folder) {
    for (const auto &file : std::filesystem::directory_iterator(folder))
        if (file.path().extension() == ".json")
            add_report(file.path());
    // A child of fork reports what its parent holds, too: chains count once, at their most.
    std::map<std::pair<std::string, std::vector<std::string>>, Finding> chains;
    for (Finding &finding : findings_) {
        Finding &known = chains[{finding.what, finding.chain}];
        if (finding.bytes >= known.bytes)
            known = std::move(finding);
    }
    findings_.clear();
    for (auto &[chain, finding] : chains)
        findings_.push_back(std::move(finding));
    // Damage first, then by size.
    std::ranges::stable_sort(findings_, [](const Finding &left, const Finding &right) {
        return std::pair(left.what == "left", right.bytes) < std::pair(right.what == "left", left.bytes);
    });
}

void Findings::add_report(const std::string &path) {
    std::ifstream file(path);
    std::vector<Finding> last;
    for (std::string text; std::getline(file, text);) {
        const Json line = Json::parse(text, nullptr, false);
        if (line.is_discarded()) // the process ended in mid-line
            continue;
        if (line["kind"] == "cycle")
            last.clear();
        else if (line["kind"] == "site")
            last.push_back(finding_of(line, "left"));
        else if (line["kind"] == "damage")
            last.push_back(finding_of(line, line["defect"].get_ref<const std::string &>().c_str()));
    }
    ++processes_;
    findings_.insert(findings_.end(), last.begin(), last.end());
}

void Findings::suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer) {
    std::erase_if(findings_, [&](const Finding &finding) {
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
            suppression.blocks += finding.blocks;
            suppression.bytes += finding.bytes;
            return true;
        }
        return false;
    });
}

void Findings::print(std::ostream &out, Symbolizer &symbolizer) const {
    constexpr size_t most_findings = 5;
    constexpr size_t most_frames = 4;
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    for (const Finding &finding : findings_) {
        blocks += finding.blocks;
        bytes += finding.bytes;
    }
    out << "k42mc: " << blocks << " blocks, " << bytes << " bytes at " << findings_.size()
        << " sites in " << processes_ << " processes\n";
    for (size_t i = 0; i < std::min(findings_.size(), most_findings); ++i) {
        const Finding &finding = findings_[i];
        out << "  " << finding.what << ": " << finding.blocks << " blocks, " << finding.bytes
            << " bytes\n";
        for (size_t at = 0; at < std::min(finding.chain.size(), most_frames); ++at)
            for (const SourceFrame &source : symbolizer.lookup(finding.chain[at]))
                out << "    " << described(finding.chain[at], source) << '\n';
    }
    if (findings_.size() > most_findings)
        out << "  and " << findings_.size() - most_findings << " sites more\n";
}
