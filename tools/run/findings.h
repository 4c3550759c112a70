// What the reports of a run's processes say, summed up.
#pragma once

#include "suppressions.h"
#include "tools/common/symbols.h"

#include <ostream>

// Blocks of one call chain that were left, one chain's damaged blocks, or descriptors that one chain
// opened.
struct Finding {
    std::string what; // "left", or a defect: "WO", "WU"; "open", "closed twice", "standard descriptor"
    uint64_t count = 0;
    uint64_t bytes = 0;
    std::vector<std::string> chain;  // "/usr/bin/p+0x1a2b", innermost first
    std::vector<std::string> before; // of a second close: that of the first
};

// What stopped a process.
struct Defect {
    int process;
    std::string text;
    std::vector<std::string> chain; // of the release that found it
    std::vector<std::string> block; // of the allocation or the release before
};

class Findings {
public:
    // Reads the last report of each process in the folder.
    explicit Findings(const std::string &folder);

    // Drops what a suppression matches, and counts it there.
    void suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer);

    bool empty() const { return blocks_.empty() && descriptors_.empty() && defects_.empty(); }
    size_t processes() const { return processes_; }
    void print(std::ostream &out, Symbolizer &symbolizer) const;

private:
    void add_report(const std::string &path);

    std::vector<Finding> blocks_;
    std::vector<Finding> descriptors_;
    std::vector<Defect> defects_;
    size_t processes_ = 0;
};
