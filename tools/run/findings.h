// What the reports of a run's processes say, summed up.
#pragma once

#include "suppressions.h"
#include "tools/common/symbols.h"

#include <map>
#include <ostream>

// Blocks of one call chain that were left, or one chain's damaged blocks.
struct Finding {
    std::string what; // "left", or a defect: "WO", "WU"
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    std::vector<std::string> chain; // "/usr/bin/p+0x1a2b", innermost first, the shim's frames left out
};

class Findings {
public:
    // Reads the last report of each process in the folder.
    explicit Findings(const std::string &folder);

    // Drops what a suppression matches, and counts it there.
    void suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer);

    bool empty() const { return findings_.empty(); }
    size_t processes() const { return processes_; }
    void print(std::ostream &out, Symbolizer &symbolizer) const;

private:
    void add_report(const std::string &path);

    std::vector<Finding> findings_;
    size_t processes_ = 0;
};
