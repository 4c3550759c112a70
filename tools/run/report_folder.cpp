#include "tools/run/report_folder.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0)
            close(number_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    operator int() const { return number_; }

private:
    int number_;
};

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

int open_new() {
    std::error_code no_working_directory;
    const char *temporary = getenv("TMPDIR");
    const std::array<std::string, 3> parents = {fs::current_path(no_working_directory),
                                                temporary != nullptr ? temporary : "", "/tmp"};
    for (const std::string &parent : parents) {
        struct stat status;
        if (parent.empty() || stat(parent.c_str(), &status) != 0 || danger_of(status) != nullptr)
            continue;
        std::string folder = parent + "/k42mc-run.XXXXXX";
        if (mkdtemp(folder.data()) != nullptr)
            return open_named(folder);
    }
    throw std::runtime_error("no folder for reports can be made");
}

std::string random_word() {
    std::random_device random;
    char word[17];
    snprintf(word, sizeof word, "%08x%08x", random(), random());
    return word;
}

} // namespace

ReportFolder::ReportFolder(const std::string &name)
    : descriptor_(name.empty() ? open_new() : open_named(name)),
      path_(fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor_))), run_id_(random_word()) {}

ReportFolder::~ReportFolder() {
    close(descriptor_);
}

std::vector<Setting> ReportFolder::settings() const {
    struct stat status;
    if (fstat(descriptor_, &status) != 0)
        refuse(path_, strerror(errno));
    return {{"K42MC_RUN_OUTPUT", path_},
            {"K42MC_RUN_FOLDER", std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)},
            {"K42MC_RUN_ID", run_id_}};
}

// The shim begins its files with the run's own word.
ReportFolder::Content ReportFolder::content_of(int file) const {
    const std::string first_line = R"({"kind":"run","id":")" + run_id_ + "\"}\n";
    std::string head(first_line.size(), '\0');
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) ||
        pread(file, head.data(), head.size(), 0) != static_cast<ssize_t>(head.size()) ||
        head != first_line)
        return Content::foreign;
    return static_cast<size_t>(status.st_size) > head.size() ? Content::report : Content::none;
}

// Of its text there may be something to read all the same.
void ReportFolder::remove_pair(const std::string &json) const {
    const std::string text = fs::path(json).replace_extension(".txt");
    struct stat status;
    if (fstatat(descriptor_, text.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode) && status.st_size == 0)
        unlinkat(descriptor_, text.c_str(), 0);
    unlinkat(descriptor_, json.c_str(), 0);
}

std::vector<std::string> ReportFolder::collect_reports() const {
    std::vector<std::string> reports;
    std::vector<std::string> empty;
    for (const fs::directory_entry &entry : fs::directory_iterator(path_)) {
        const std::string name = entry.path().filename();
        if (entry.path().extension() != ".json")
            continue;
        const Descriptor file(
            openat(descriptor_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        const Content content = content_of(file);
        if (content == Content::report)
            reports.push_back(entry.path());
        // A process that is still running holds a lock on its own.
        else if (content == Content::none && flock(file, LOCK_EX | LOCK_NB) == 0)
            empty.push_back(name);
    }
    for (const std::string &name : empty)
        remove_pair(name);
    return reports;
}

std::string ReportFolder::obstacle() const {
    const Descriptor file(openat(descriptor_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (file < 0)
        return errno == EOPNOTSUPP ? "" : strerror(errno);
    const std::array<char, 4096> page{};
    return write(file, page.data(), page.size()) == static_cast<ssize_t>(page.size()) ? ""
                                                                                      : strerror(errno);
}
