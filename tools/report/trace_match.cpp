#include "tools/report/trace_match.h"

#include "tools/common/short_name.h"
#include "tools/shared/suppression_lines.h"

#include <algorithm>
#include <map>

namespace {

bool matches_source(std::string_view pattern, std::string_view pc, Symbolizer &symbolizer) {
    return std::ranges::any_of(frames_at(pc, symbolizer), [&](const SourceFrame &source) {
        return matches_pattern(pattern, source.function) || matches_pattern(pattern, source.file) ||
               matches_pattern(pattern, short_name(source.function)); // as summaries have it
    });
}

bool is_suppressed(std::string_view suppressions, Trace trace, Symbolizer &symbolizer) {
    bool found = false;
    each_suppression(suppressions, [&](std::string_view, std::string_view pattern) {
        found = found || (!pattern.empty() && matches_trace(pattern, trace, symbolizer));
    });
    return found;
}

} // namespace

std::vector<SourceFrame> frames_at(std::string_view pc, Symbolizer &symbolizer) {
    if (module_of(pc).find("/libc.so.") == std::string_view::npos)
        return symbolizer.lookup(pc);
    SourceFrame frame;
    frame.function = symbolizer.function(pc);
    return {frame};
}

bool matches_symbol(std::string_view pattern, std::string_view pc, Symbolizer &symbolizer) {
    return matches_pattern(pattern, module_of(pc)) || matches_pattern(pattern, symbolizer.function(pc));
}

bool matches_trace(std::string_view pattern, Trace trace, Symbolizer &symbolizer) {
    const auto any = [&](const auto matches_pc) {
        return std::ranges::any_of(
            trace, [&](std::string_view pc) { return matches_pc(pattern, pc, symbolizer); });
    };
    return any(matches_symbol) || any(matches_source);
}

void heed_own_suppressions(Report &report, Symbolizer &symbolizer) {
    for (Process &process : report.processes) {
        std::map<uint32_t, bool> known; // by the number of the site
        for (Cycle &cycle : process.cycles)
            for (Holding &holding : cycle.holdings) {
                if (process.suppressions.empty() || holding.lost.blocks == 0)
                    continue;
                const auto [suppressed, is_new] = known.try_emplace(holding.site);
                if (is_new)
                    suppressed->second = is_suppressed(process.suppressions,
                                                       trace_of(report.site(holding.site)), symbolizer);
                if (suppressed->second)
                    holding.lost = {};
            }
    }
}
