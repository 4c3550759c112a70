#include "tools/watch/feed.h"

#include "tools/report/reader.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

pid_t number_of_process(const std::string &what) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(what.data(), what.data() + what.size(), pid);
    return error == std::errc() && end == what.data() + what.size() ? pid : 0;
}

} // namespace

Feed::Feed(std::string what, std::chrono::seconds pause) : what_(std::move(what)), pause_(pause) {
    if (const pid_t pid = number_of_process(what_); pid > 0)
        process_.emplace(pid);
    else if (!fs::exists(what_))
        throw std::runtime_error(what_ + ": no such file, folder or process");
}

std::string Feed::title() const {
    if (!process_)
        return what_;
    return "process " + what_ + (process_->has_ended() ? ", which has ended" : "");
}

void Feed::ask() {
    asked_ = Clock::now();
    if (process_)
        process_->ask();
}

std::vector<std::string> Feed::paths() const {
    if (process_)
        return process_->reports();
    return {what_};
}

std::vector<Feed::FileState> Feed::look() const {
    std::vector<FileState> files;
    const auto add = [&](const std::string &path) {
        struct stat state;
        if (stat(path.c_str(), &state) == 0 && S_ISREG(state.st_mode))
            files.push_back({path, state.st_size, state.st_mtim});
    };
    std::error_code error;
    for (const std::string &path : paths()) {
        add(path);
        for (const fs::directory_entry &entry : fs::directory_iterator(path, error))
            add(entry.path());
    }
    std::ranges::sort(files, {}, &FileState::path);
    return files;
}

// A report that is just being written is waited for, but not for long: others may write all the time.
std::optional<Report> Feed::next() {
    constexpr std::chrono::seconds long_enough(1);
    if (process_ && Clock::now() - asked_ >= pause_)
        ask();
    std::vector<FileState> files = look();
    const bool is_still = files == seen_, is_due = Clock::now() - read_at_ > long_enough;
    seen_ = files;
    if (files == read_ || !(is_still || is_due))
        return {};
    read_ = std::move(files);
    read_at_ = Clock::now();
    return read_reports(paths(), {});
}
