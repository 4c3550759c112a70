#include "tools/run/report_folder.h"

#include "tools/common/file.h"
#include "tools/run/run_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <set>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// What speaks against files of ours in a folder: whoever can rename and remove there can put files of his own
// into their place. Null for nothing. A sticky folder leaves that to the files' owners.
const char *danger_of(const struct stat &folder) {
    if (folder.st_uid != geteuid() && folder.st_uid != 0)
        return "belongs to another user";
    if ((folder.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (folder.st_mode & S_ISVTX) == 0)
        return "can be written by others";
    return nullptr;
}

[[noreturn]] void refuse(const std::string &folder, const char *reason) {
    throw std::runtime_error("the folder for reports " + folder + ": " + reason);
}

int open_named(std::string name) {
    while (name.size() > 1 && name.ends_with('/'))
        name.pop_back(); // behind a slash, a link is followed
    if (const fs::path parent = fs::path(name).parent_path(); !parent.empty())
        fs::create_directories(parent);
    if (mkdir(name.c_str(), 0755) != 0 && errno != EEXIST)
        refuse(name, strerror(errno));
    const int folder = open(name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status;
    if (folder < 0 || fstat(folder, &status) != 0)
        refuse(name, strerror(errno));
    if (const char *danger = danger_of(status)) {
        close(folder);
        refuse(name, danger);
    }
    return folder;
}

// Whether nobody else can put a folder of his own into the place of this one, or of one that it is in. What is not
// there yet can be made below what is.
bool is_safe(const fs::path &folder) {
    std::error_code error;
    const fs::path whole = fs::weakly_canonical(folder, error);
    bool safe = !error && whole.is_absolute();
    for (fs::path part = whole; safe && part.has_relative_path(); part = part.parent_path()) {
        struct stat status;
        safe = stat(part.c_str(), &status) == 0 ? danger_of(status) == nullptr : errno == ENOENT;
    }
    return safe;
}

// Null unless it is a whole path, as the variable is to have.
const char *path_in(const char *variable) {
    const char *path = getenv(variable);
    return path != nullptr && *path == '/' ? path : nullptr;
}

// Where the user's programs keep what is to outlast them; empty for nowhere.
fs::path state_folder() {
    if (const char *state = path_in("XDG_STATE_HOME"))
        return fs::path(state) / "k42mc";
    const char *home = path_in("HOME");
    return home != nullptr ? fs::path(home) / ".local/state/k42mc" : fs::path();
}

void make_private(const fs::path &folder) {
    std::error_code error; // what is missing then is told by what is made in it
    const mode_t before = umask(077);
    fs::create_directories(folder, error);
    umask(before);
}

// Returns -1 if none can be made there.
int open_new_below(const fs::path &parent) {
    std::string folder = parent / "k42mc-run.XXXXXX";
    return mkdtemp(folder.data()) != nullptr ? open_named(folder) : -1;
}

int open_new() {
    if (const fs::path state = state_folder(); is_safe(state)) {
        make_private(state);
        if (const int folder = open_new_below(state); folder >= 0)
            return folder;
    }
    for (const char *temporary : {path_in("TMPDIR"), "/tmp"})
        if (temporary != nullptr && is_safe(temporary))
            if (const int folder = open_new_below(temporary); folder >= 0)
                return folder;
    throw std::runtime_error("no folder for reports can be made");
}

std::string random_word() {
    std::random_device random;
    char word[run_id_size + 1];
    snprintf(word, sizeof word, "%08x%08x", random(), random());
    return word;
}

// "server.812" of "server.812.json" and of "server.812-1.json".
std::string process_of(const RunFile &file) {
    const std::string stem = fs::path(file.name).stem();
    const size_t again = stem.find('-', stem.rfind('.'));
    return stem.substr(0, again);
}

std::string number_of(const std::string &process) {
    return process.substr(process.rfind('.') + 1);
}

// A process may have been another program before, under the same number.
void remove_known(std::vector<SilentProcess> &silent, const std::vector<RunFile> &files,
                  const std::string &run_id) {
    std::set<std::string> known;
    for (const RunFile &file : files)
        if (file.run_id == run_id && file.is_json && !file.is_empty)
            known.insert(number_of(process_of(file)));
    std::set<std::string> names;
    for (const SilentProcess &process : silent)
        names.insert(process.name);
    std::erase_if(silent, [&](const SilentProcess &process) {
        const std::string number = number_of(process.name);
        const std::string later = fs::path(process.went_on_as).filename().string() + "." + number;
        return known.contains(number) || (later != process.name && names.contains(later));
    });
}

} // namespace

ReportFolder::ReportFolder(const std::string &name, bool keep_earlier)
    : is_new_(name.empty()), descriptor_(is_new_ ? open_new() : open_named(name)),
      path_(fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor_))), run_id_(random_word()) {
    if (!is_new_ && !keep_earlier)
        remove_earlier();
    flock(descriptor_, LOCK_SH | LOCK_NB);
}

ReportFolder::~ReportFolder() {
    close(descriptor_);
}

// Of runs that are over: each holds a lock on the folder.
void ReportFolder::remove_earlier() const {
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0)
        return;
    for (const RunFile &file : run_files_in(descriptor_))
        if (file.is_idle)
            unlinkat(descriptor_, file.name.c_str(), 0);
}

std::vector<Setting> ReportFolder::settings() const {
    struct stat status;
    if (fstat(descriptor_, &status) != 0)
        refuse(path_, strerror(errno));
    return {{"K42MC_RUN_OUTPUT", path_},
            {"K42MC_RUN_FOLDER", std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)},
            {"K42MC_RUN_ID", run_id_}};
}

void ReportFolder::add_list(const std::string &text) const {
    const std::string name = "processes-" + run_id_.substr(0, 8) + ".list";
    const File file(openat(descriptor_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    const std::string all = first_line_of_list(run_id_) + text;
    if (file.is_open())
        (void)!write(file.descriptor(), all.data(), all.size()); // a full disk is told of elsewhere
}

RunOutputs ReportFolder::collect() const {
    const std::string opened =
        "/proc/self/fd/" + std::to_string(descriptor_) + "/"; // whatever it is called now
    RunOutputs outputs;
    const std::vector<RunFile> files = run_files_in(descriptor_);
    for (const RunFile &file : files) {
        if (file.run_id != run_id_)
            continue;
        if (file.is_json && file.is_empty)
            outputs.silent.push_back({process_of(file), !file.is_idle, file.went_on_as});
        if (file.is_empty && file.is_idle)
            unlinkat(descriptor_, file.name.c_str(), 0);
        else if (!file.is_empty && file.is_json)
            outputs.reports.push_back(opened + file.name);
        else if (!file.is_empty)
            outputs.texts.push_back(path_ + "/" + file.name);
    }
    remove_known(outputs.silent, files, run_id_);
    return outputs;
}

bool ReportFolder::discard(bool found_nothing) const {
    if (!is_new_)
        return false;
    if (found_nothing)
        for (const RunFile &file : run_files_in(descriptor_))
            if (file.run_id == run_id_ && file.is_idle)
                unlinkat(descriptor_, file.name.c_str(), 0);
    return rmdir(path_.c_str()) == 0;
}

std::string ReportFolder::obstacle() const {
    const File file(openat(descriptor_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!file.is_open())
        return errno == EOPNOTSUPP ? "" : strerror(errno);
    const std::array<char, 4096> page{};
    const bool written =
        write(file.descriptor(), page.data(), page.size()) == static_cast<ssize_t>(page.size());
    return written ? "" : strerror(errno);
}
