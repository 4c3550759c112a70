#include "tools/report/trace_lines.h"

#include "tools/report/names.h"

#include <algorithm>

void print_trace(std::ostream &out, Trace trace, Symbolizer &symbolizer) {
    constexpr size_t most_frames = 4;
    Names names(symbolizer, {.skipped = {}, .libc_lines = false});
    std::vector<StackFrame> frames = names.frames(trace);
    const auto first = std::ranges::find_if(frames, &StackFrame::is_own);
    if (first != frames.end()) {
        const auto callee = first - (first == frames.begin() ? 0 : 1);
        const auto rest = std::remove_if(first, frames.end(), std::not_fn(&StackFrame::is_own));
        frames = std::vector<StackFrame>(callee, rest);
    }
    for (const StackFrame &frame : std::span(frames).first(std::min(frames.size(), most_frames))) {
        out << "    " << frame.text() << '\n';
        if (frame.function == "main")
            return; // what called it is the same for all
    }
}
