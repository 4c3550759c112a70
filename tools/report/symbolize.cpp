#include "tools/report/symbolize.h"

#include <regex>

namespace {

// "/usr/bin/p(function+0x12) [0x55ee]"
bool is_frame(const std::string &line) {
    static const std::regex frame(R"(\S.*\(\S*\+0x[0-9a-f]+\) \[0x[0-9a-f]+\]\r?)");
    return line.find(" [0x") != std::string::npos && std::regex_match(line, frame);
}

std::string described(const std::string &line, Symbolizer &symbolizer) {
    std::string text;
    for (const SourceFrame &frame : symbolizer.lookup(line)) {
        if (frame.function.empty() && frame.file.empty())
            continue;
        text += text.empty() ? "  " : ", inlined into ";
        text += frame.function;
        if (!frame.file.empty())
            text += " at " + frame.file + ":" + std::to_string(frame.line);
    }
    return text;
}

} // namespace

void symbolize(std::istream &in, std::ostream &out, Symbolizer &symbolizer) {
    for (std::string line; std::getline(in, line);) {
        out << line;
        if (is_frame(line))
            out << described(line, symbolizer);
        if (!in.eof()) // the last line may end without
            out << '\n';
    }
}
