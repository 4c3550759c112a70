// What the reports of a run's processes say, summed up.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/finding.h"
#include "tools/report/model.h"
#include "tools/run/suppressions.h"

#include <algorithm>
#include <ostream>

// Blocks of one stack trace that were left, one trace's damaged blocks, or descriptors that one trace
// opened or closed; one trace of all processes.
struct Group {
    std::string what;     // "left", or what is wrong
    bool certain = false; // a bug, not only something that was left
    uint64_t count = 0;
    uint64_t bytes = 0;
    Trace trace;  // "/usr/bin/p+0x1a2b", innermost first
    Trace before; // of a second close: that of the first
};

// Of a report, which has to stay.
class Findings {
public:
    explicit Findings(const Report &report);

    // Drops what a suppression matches, and counts it there.
    void suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer);

    // Nothing is wrong, whatever is to be said.
    bool empty() const {
        return blocks_.empty() && descriptors_.empty() &&
               std::ranges::none_of(remarks_,
                                    [](const Remark &remark) { return remark.finding.is_fault(); });
    }
    void print(std::ostream &out, Symbolizer &symbolizer) const;

private:
    // On a process, not on what it holds.
    struct Remark {
        std::string process; // "server.812"
        Finding finding;
    };

    void add(const Process &process, const Finding &finding);

    std::vector<Group> blocks_;
    std::vector<Group> descriptors_;
    std::vector<Remark> remarks_;
    size_t processes_ = 0;
};
