#include "tools/report/symbolize.h"

#include "tools/common/printable.h"

namespace {

std::string described(std::string_view line, Symbolizer &symbolizer) {
    std::string text;
    for (const SourceFrame &frame : symbolizer.lookup(line)) {
        if (frame.function.empty() && frame.file.empty())
            continue;
        text += text.empty() ? "  " : ", inlined into ";
        text += frame.function;
        if (!frame.file.empty())
            text += " at " + frame.file + ":" + std::to_string(frame.line);
    }
    return printable(text);
}

// Without the end that a line has from elsewhere.
std::string_view bare(std::string_view line) {
    return line.substr(0, line.size() - line.ends_with('\r'));
}

} // namespace

void symbolize(std::istream &in, std::ostream &out, Symbolizer &symbolizer) {
    for (std::string line; std::getline(in, line);) {
        out << line;
        if (is_trace_line(bare(line)))
            out << described(bare(line), symbolizer);
        if (!in.eof()) // the last line may end without
            out << '\n';
    }
}
