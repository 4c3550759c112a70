// How far a long work is, on one line of a terminal.
#pragma once

#include "tools/run/each/trial.h"

#include <string>

class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine(); // takes the line away
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    // Nothing without a terminal. What `remark` says stands behind it.
    void show(size_t done, size_t all, const std::string &remark);

private:
    const bool on_terminal_;
    const Clock::time_point start_;
    Clock::time_point next_;
    bool begun_ = false;
};
