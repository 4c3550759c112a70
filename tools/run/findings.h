// What the reports of a run's processes say, summed up.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"
#include "tools/run/suppressions.h"

#include <ostream>

// Blocks of one call chain that were left, one chain's damaged blocks, or descriptors that one chain
// opened or closed.
struct Finding {
    std::string what; // "left", "open", or what is wrong
    uint64_t count = 0;
    uint64_t bytes = 0;
    std::vector<std::string> chain;  // "/usr/bin/p+0x1a2b", innermost first
    std::vector<std::string> before; // of a second close: that of the first
};

class Findings {
public:
    explicit Findings(const Report &report);

    // Drops what a suppression matches, and counts it there.
    void suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer);

    bool empty() const { return blocks_.empty() && descriptors_.empty() && stops_.empty(); }
    void print(std::ostream &out, Symbolizer &symbolizer) const;

private:
    std::vector<Finding> blocks_;
    std::vector<Finding> descriptors_;
    std::vector<Stop> stops_;
    size_t processes_ = 0;
};
