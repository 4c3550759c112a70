// Outcomes as lines of JSON, one as soon as it is known, so that an interrupted command can go on from there.
#pragma once

#include "tools/run/each/outcome.h"

#include <string>
#include <vector>

class OutcomeFile {
public:
    // Throws std::runtime_error where it cannot be written, or is to go on and is of another program.
    OutcomeFile(const std::string &path, const std::vector<std::string> &command, bool goes_on);

    // What it had.
    const std::vector<Outcome> &earlier() const { return earlier_; }

    void add(const Outcome &outcome, const std::string &repeating) const;

private:
    void put(const std::string &line) const;

    std::string path_;
    File file_;
    std::vector<Outcome> earlier_;
};
