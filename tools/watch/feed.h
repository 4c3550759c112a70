// Reports that are being written: those in files and folders, or those that a process is asked for.
#pragma once

#include "tools/report/model.h"
#include "tools/watch/process.h"

#include <chrono>
#include <optional>
#include <sys/stat.h>

class Feed {
public:
    using Clock = std::chrono::steady_clock;

    // A path, or the number of a process, which is asked every so many seconds.
    Feed(std::string what, std::chrono::seconds pause);

    std::string title() const;
    void ask();
    // All there is, when there is more than was read last.
    std::optional<Report> next();

private:
    struct FileState {
        std::string path;
        off_t size;
        timespec changed;

        bool operator==(const FileState &other) const {
            return path == other.path && size == other.size && changed.tv_sec == other.changed.tv_sec &&
                   changed.tv_nsec == other.changed.tv_nsec;
        }
    };

    std::vector<std::string> paths() const;
    std::vector<FileState> look() const;

    const std::string what_;
    const std::chrono::seconds pause_;
    std::optional<WatchedProcess> process_;
    Clock::time_point asked_;
    std::vector<FileState> seen_, read_;
    Clock::time_point read_at_;
};
