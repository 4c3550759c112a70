#include "tools/report/reader.h"

#include "tools/common/file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace {

namespace fs = std::filesystem;

bool is_report(const fs::path &path) {
    return path.extension() == ".txt" || path.extension() == ".json" || path.extension() == ".jsonl";
}

// A process under `k42mc run` leaves a text and lines of JSON, which have the stack traces, too.
bool is_said_better(const fs::path &path) {
    return path.extension() == ".txt" && fs::exists(fs::path(path).replace_extension(".json"));
}

struct Input {
    std::string path;
    bool is_found; // in a folder, not asked for by name
};

void add_folder(const fs::path &folder, std::vector<Input> &inputs) {
    std::vector<std::string> found;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        if (entry.is_regular_file() && is_report(entry.path()) && !is_said_better(entry.path()))
            found.push_back(entry.path());
    std::ranges::sort(found);
    for (std::string &path : found)
        inputs.push_back({std::move(path), true});
}

// What was found in a folder may have been replaced since.
File open_report(const Input &input) {
    constexpr off_t any_size = std::numeric_limits<off_t>::max();
    File file = input.is_found ? open_regular(input.path, any_size) : open_input(input.path);
    if (!file.is_open())
        throw std::runtime_error(input.path + ": " +
                                 (errno == EINVAL ? "neither a file nor a pipe" : strerror(errno)));
    return file;
}

void read_report(Report &report, const Input &input, const Lines::OnRead &on_read) {
    const File file = open_report(input);
    Lines lines(file.descriptor(), on_read);
    try {
        (lines.begin_with("{\"") ? read_json : read_text)(report, input.path, lines);
    } catch (const std::system_error &error) {
        throw std::runtime_error(input.path + ": " + strerror(error.code().value()));
    }
}

} // namespace

Report read_reports(std::span<const std::string> paths, const Progress &progress) {
    std::vector<Input> inputs;
    for (const std::string &path : paths) {
        if (fs::is_directory(path))
            add_folder(path, inputs);
        else
            inputs.push_back({path, false});
    }
    uint64_t all = 0;
    for (const Input &input : inputs)
        if (fs::is_regular_file(input.path))
            all += fs::file_size(input.path);
    Report report;
    uint64_t done = 0;
    for (const Input &input : inputs)
        read_report(report, input, [&](uint64_t bytes) {
            if (progress)
                progress(done += bytes, all);
        });
    return report;
}
