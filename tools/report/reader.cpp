#include "tools/report/reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

bool is_report(const fs::path &path) {
    return path.extension() == ".txt" || path.extension() == ".json" || path.extension() == ".jsonl";
}

// A process under `k42mc run` leaves a text and lines of JSON, which have the call chains, too.
bool is_said_better(const fs::path &path) {
    return path.extension() == ".txt" && fs::exists(fs::path(path).replace_extension(".json"));
}

void add_folder(const fs::path &folder, std::vector<std::string> &files) {
    std::vector<std::string> found;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        if (entry.is_regular_file() && is_report(entry.path()) && !is_said_better(entry.path()))
            found.push_back(entry.path());
    std::ranges::sort(found);
    files.insert(files.end(), found.begin(), found.end());
}

std::string contents(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file || fs::is_directory(path))
        throw std::runtime_error(path + ": " + strerror(file ? EISDIR : errno));
    std::string text(std::istreambuf_iterator<char>(file), {});
    return text;
}

bool is_json(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string_view::npos && text.substr(first).starts_with("{\"");
}

} // namespace

Report read_reports(std::span<const std::string> paths, const Progress &progress) {
    std::vector<std::string> files;
    for (const std::string &path : paths) {
        if (fs::is_directory(path))
            add_folder(path, files);
        else
            files.push_back(path);
    }
    uint64_t all = 0;
    for (const std::string &file : files)
        if (fs::is_regular_file(file))
            all += fs::file_size(file);
    Report report;
    uint64_t done = 0;
    for (const std::string &file : files) {
        const std::string text = contents(file);
        (is_json(text) ? read_json : read_text)(report, file, text);
        if (progress)
            progress(done += text.size(), all);
    }
    return report;
}
