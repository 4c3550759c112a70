// What became of a program in which one allocation failed.
#pragma once

#include "tools/report/findings.h"
#include "tools/run/each/trial.h"

#include <array>
#include <set>
#include <string>
#include <vector>

// Worst first.
enum class OutcomeKind {
    damaged,  // a guard, or something released or closed twice
    crash,    // a signal
    hang,     // past the time limit
    lost,     // blocks or descriptors
    wrong,    // it says that all went well, and does something else
    handled,  // it has said so
    ignored,  // nobody can tell
    unreached // that allocation did not come
};
inline constexpr std::array outcome_names = {"damaged", "crash",   "hang",    "lost",
                                             "wrong",   "handled", "ignored", "unreached"};

constexpr bool is_bad(OutcomeKind kind) {
    return kind <= OutcomeKind::lost;
}

struct Happening {
    OutcomeKind kind;
    std::string what;               // "ended by SIGSEGV", "lost: 2 blocks, 20 bytes"
    std::vector<std::string> trace; // where that is
};

struct Outcome {
    std::string stack;                    // the name of the failed allocation's
    std::vector<Happening> happened = {}; // worst first, at least one
    std::string process = {};             // in which the allocation failed: "server.812"
    std::string failure = {};             // "allocation 30 failed on purpose: 136 bytes"
    std::vector<std::string> failed = {}; // where it was
    std::string message = {};             // the first line on standard error

    OutcomeKind kind() const { return happened.front().kind; }
};

// What the program is measured by: a run in which nothing fails.
struct GoodRun {
    int status = 0;
    Said output, errors;
    bool output_repeats = true, errors_repeat = true; // in a second such run
    std::set<std::string> found;                      // whatever is found all the same
};

// Traces in a copy of a folder are of the folder.
struct Moved {
    std::string from, to;
};

// What a good run has of findings, to be told from others.
std::set<std::string> names_of(const Findings &findings, const Trial &trial, const Moved &moved);

Outcome outcome_of(const std::string &stack, const Trial &trial, const Report &report,
                   const Findings &findings, const GoodRun &good, const Moved &moved);
