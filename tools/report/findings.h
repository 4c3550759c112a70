// What the reports of a run's processes say, summed up.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/finding.h"
#include "tools/report/model.h"
#include "tools/report/suppressions.h"

#include <ostream>
#include <string_view>

// What counts of the blocks that are left: those that nothing leads to, all, or none.
enum class LeakCheck { lost, held, no };

LeakCheck leak_check_named(std::string_view name);

// Blocks of one stack trace that were left, one trace's damaged blocks, or descriptors that one trace
// opened or closed; of one process.
struct Group {
    std::string what;     // "lost", "left", or what is wrong
    bool certain = false; // a bug, not only something that was left
    uint64_t count = 0;
    uint64_t bytes = 0;
    Trace trace;  // "/usr/bin/p+0x1a2b", innermost first
    Trace before; // of a second close: that of the first
};

// Of a report, which has to stay.
class Findings {
public:
    // Of one process.
    struct Part {
        std::string_view name; // "server.812"
        std::vector<Group> blocks = {}, descriptors = {};
        std::vector<Finding> remarks = {}; // on the process, not on what it holds

        Counter held = {}; // beside them
        std::vector<Suppression> own_suppressions = {};

        Part(const Report &report, const Process &process, LeakCheck leak_check);
        void add_left(const Report &report, const Cycle &cycle, LeakCheck leak_check);
        void add(const Finding &finding);
        bool is_empty() const { return blocks.empty() && descriptors.empty() && remarks.empty(); }
        void print(std::ostream &out, bool is_one_of_many, Symbolizer &symbolizer) const;
    };

    // What was found in the process of that name stands first.
    Findings(const Report &report, LeakCheck leak_check, std::string_view first);

    // Drops what a suppression matches, one of these or of the process's own, and counts it there.
    void suppress(std::vector<Suppression> &suppressions, Symbolizer &symbolizer);

    // Nothing is wrong, whatever is to be said.
    bool empty() const;
    void print(std::ostream &out, Symbolizer &symbolizer) const;

    const std::vector<Part> &parts() const { return parts_; }

private:
    void print_own_suppressions(std::ostream &out) const;

    std::vector<Part> parts_;
};
