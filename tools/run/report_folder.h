// The folder that the processes of a run leave their reports in, and which of its files are theirs.
#pragma once

#include "tools/run/launch.h"

#include <string>
#include <vector>

class ReportFolder {
public:
    // Made where it is not there yet; without a name a new one, in the working directory or else where
    // temporary files go. Throws std::runtime_error when there is none, or somebody else could put files of
    // his own into the place of reports.
    explicit ReportFolder(const std::string &name);
    ~ReportFolder();
    ReportFolder(const ReportFolder &) = delete;
    ReportFolder &operator=(const ReportFolder &) = delete;

    const std::string &path() const { return path_; }

    // What the shim has to know of it.
    std::vector<Setting> settings() const;

    // The reports of this run in lines of JSON. Removes the files of its processes that ended without one, as
    // children of fork do that turn into another program, and nothing else.
    std::vector<std::string> collect_reports() const;

    // Why nothing can be written there; empty when it can be.
    std::string obstacle() const;

private:
    enum class Content { foreign, none, report };
    Content content_of(int file) const;
    void remove_pair(const std::string &json) const;

    int descriptor_;
    std::string path_;
    std::string run_id_;
};
