// A running process under `k42mc run` that can be asked for reports.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

class WatchedProcess {
public:
    // Throws where it cannot be asked, with the reason.
    explicit WatchedProcess(pid_t pid);
    ~WatchedProcess();
    WatchedProcess(const WatchedProcess &) = delete;
    WatchedProcess &operator=(const WatchedProcess &) = delete;

    bool has_ended() const;
    void ask() const;
    std::vector<std::string> reports() const; // the files that it has written so far

private:
    bool takes_signal() const;

    const pid_t pid_;
    const int descriptor_; // of that process, whoever gets its number later
    std::string folder_;
    int signal_ = 0;
};
