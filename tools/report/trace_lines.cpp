#include "tools/report/trace_lines.h"

#include "tools/common/printable.h"

#include <algorithm>

void print_trace(std::ostream &out, Trace trace, Symbolizer &symbolizer) {
    constexpr size_t most_frames = 4;
    for (const std::string_view pc : trace.first(std::min(trace.size(), most_frames))) {
        const std::vector<SourceFrame> frames = frames_at(pc, symbolizer);
        for (const SourceFrame &frame : frames)
            out << "    " << printable(describe(pc, frame)) << '\n';
        if (frames.back().function == "main")
            return; // what called it is the same for all
    }
}
