// The folder that the processes of a run leave their reports in, and which of its files are theirs.
#pragma once

#include "tools/run/launch.h"

#include <string>
#include <vector>

// A process without a report.
struct SilentProcess {
    std::string name; // "server.812"
    bool still_runs;
    std::string went_on_as; // another program, as far as it said so
};

// What the processes of a run have left.
struct RunOutputs {
    std::vector<std::string> reports; // lines of JSON, to be read while the folder is open
    std::vector<std::string> texts;   // to be told
    std::vector<SilentProcess> silent;
};

class ReportFolder {
public:
    // Made where it is not there yet. Reports of earlier runs go unless they are to stay, or another run is still
    // at work there. Without a name a new folder, among the user's state or else where temporary files go.
    // Throws std::runtime_error when there is none, or somebody else could put files of his own into the place
    // of reports.
    ReportFolder(const std::string &name, bool keep_earlier);
    ~ReportFolder();
    ReportFolder(const ReportFolder &) = delete;
    ReportFolder &operator=(const ReportFolder &) = delete;

    const std::string &path() const { return path_; }

    // What the shim has to know of it.
    std::vector<Setting> settings() const;

    // Beside the reports.
    void add_list(const std::string &text) const;

    // Of this run. Removes those of its files that nothing was written to, as children of fork leave them that
    // turn into another program, and nothing else.
    RunOutputs collect() const;

    // Where the folder is a new one, removes it, and ahead of it what the run has left there if it found nothing.
    // Returns whether the folder is gone.
    bool discard(bool found_nothing) const;

    // Why nothing can be written there; empty when it can be.
    std::string obstacle() const;

private:
    void remove_earlier() const;

    bool is_new_;
    int descriptor_;
    std::string path_;
    std::string run_id_;
};
