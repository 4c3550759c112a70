#include "tools/run/run_file.h"

#include "tools/common/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <simdjson.h>
#include <string_view>
#include <sys/file.h>

namespace {

// What stands around the word that the run gave its processes.
struct FirstLine {
    std::string_view start, end;
};

constexpr FirstLine first_of_json = {R"({"kind":"run","id":")", "\"}\n"};
constexpr FirstLine first_of_text = {"==========k42mc run ", "==========\n"};

struct CloseDirectory {
    void operator()(DIR *directory) const { closedir(directory); }
};

std::vector<std::string> names_in(int folder) {
    std::vector<std::string> names;
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, CloseDirectory> directory(fdopendir(copy));
    while (const dirent *entry = directory != nullptr ? readdir(directory.get()) : nullptr)
        names.emplace_back(entry->d_name);
    return names;
}

// What a process says ahead of becoming another program; empty for anything else.
std::string program_in(const std::string &line) {
    simdjson::dom::parser parser;
    simdjson::dom::element said;
    std::string_view kind;
    std::string_view program;
    const bool is_told = parser.parse(line).get(said) == simdjson::SUCCESS &&
                         said["kind"].get(kind) == simdjson::SUCCESS && kind == "exec" &&
                         said["program"].get(program) == simdjson::SUCCESS;
    return is_told ? std::string(program) : "";
}

// From there to the end, as far as it may be one line of that kind.
std::string rest_of(const File &file, size_t start, size_t size) {
    constexpr size_t longest = size_t{1} << 16;
    std::string rest(size > start && size - start <= longest ? size - start : 0, '\0');
    const ssize_t got = pread(file.descriptor(), rest.data(), rest.size(), static_cast<off_t>(start));
    rest.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return rest;
}

std::optional<RunFile> read_run_file(int folder, const std::string &name) {
    const bool is_json = name.ends_with(".json");
    if (!is_json && !name.ends_with(".txt") && !name.ends_with(".list"))
        return {};
    const FirstLine &line = is_json ? first_of_json : first_of_text;
    const File file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string head(line.start.size() + run_id_size + line.end.size(), '\0');
    struct stat status;
    if (!file.is_open() || fstat(file.descriptor(), &status) != 0 || !S_ISREG(status.st_mode) ||
        pread(file.descriptor(), head.data(), head.size(), 0) != static_cast<ssize_t>(head.size()) ||
        !head.starts_with(line.start) || !head.ends_with(line.end))
        return {};
    const auto size = static_cast<size_t>(status.st_size);
    const std::string went_on_as = is_json ? program_in(rest_of(file, head.size(), size)) : "";
    return RunFile{name, head.substr(line.start.size(), run_id_size), is_json,
                   size == head.size() || !went_on_as.empty(), went_on_as,
                   // A process that is still running holds a lock on its own.
                   flock(file.descriptor(), LOCK_EX | LOCK_NB) == 0};
}

} // namespace

std::string first_line_of_list(const std::string &run_id) {
    return std::string(first_of_text.start).append(run_id).append(first_of_text.end);
}

std::vector<RunFile> run_files_in(int folder) {
    std::vector<RunFile> files;
    for (const std::string &name : names_in(folder))
        if (std::optional<RunFile> file = read_run_file(folder, name))
            files.push_back(std::move(*file));
    return files;
}
