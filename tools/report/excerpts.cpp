#include "tools/report/excerpts.h"

#include "tools/common/file.h"

#include <algorithm>
#include <array>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

constexpr uint64_t largest_file = 4 << 20;
constexpr uint64_t most_bytes = 64 << 20;
constexpr size_t most_files = 2000;
constexpr int lines_beside = 3;
constexpr size_t longest_line = 200;

bool is_source(const fs::path &path) {
    constexpr std::array<std::string_view, 18> endings = {".c",   ".cc",  ".cpp", ".cxx", ".c++", ".C",
                                                          ".h",   ".hh",  ".hpp", ".hxx", ".h++", ".H",
                                                          ".inc", ".inl", ".ipp", ".y",   ".tcc", ".l"};
    return std::ranges::count(endings, path.extension().string()) != 0;
}

// Empty if it is not to be read.
std::string text_of(std::string_view name, uint64_t most) {
    std::error_code error;
    const fs::path path = fs::canonical(fs::path(name), error);
    if (error || !is_source(path))
        return {};
    const File file = open_regular(path, static_cast<off_t>(std::min(most, largest_file)));
    std::string text;
    char piece[1 << 16];
    for (ssize_t count; file.is_open() && (count = read(file.descriptor(), piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<size_t>(count));
    return text.find('\0') == std::string::npos ? text : "";
}

std::string shown(std::string_view line) {
    if (line.ends_with('\n'))
        line.remove_suffix(1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return std::string(line.substr(0, longest_line));
}

} // namespace

const Excerpts::Source &Excerpts::source(std::string_view file) {
    static const Source none = {{}, {0}};
    if (const auto known = files_.find(file); known != files_.end())
        return known->second;
    if (files_.size() == most_files)
        return none;
    Source &source = files_[std::string(file)];
    source.text = text_of(file, most_bytes - read_);
    read_ += source.text.size();
    source.begins = {0};
    for (uint32_t i = 0; i < source.text.size(); ++i)
        if (source.text[i] == '\n' || i + 1 == source.text.size())
            source.begins.push_back(i + 1);
    return source;
}

Excerpt Excerpts::around(std::string_view file, int line) {
    const Source &source = this->source(file);
    const int lines = static_cast<int>(source.begins.size()) - 1;
    if (line < 1 || line > lines)
        return {};
    Excerpt excerpt = {std::max(1, line - lines_beside), {}};
    for (int i = excerpt.first; i <= std::min<int64_t>(lines, int64_t{line} + lines_beside); ++i) {
        const uint32_t begin = source.begins[static_cast<size_t>(i) - 1];
        excerpt.lines.push_back(shown(
            std::string_view(source.text).substr(begin, source.begins[static_cast<size_t>(i)] - begin)));
    }
    return excerpt;
}
