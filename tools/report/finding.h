// What is to be said of a process, in the words in which every output says it.
#pragma once

#include "tools/report/model.h"

#include <functional>
#include <string>
#include <vector>

// A stack trace, and what happened there.
struct Trail {
    std::string heading;
    Trace trace;
};

struct Finding {
    enum class Kind {
        unchecked,
        note,
        stopped,
        went_on,
        crashed,
        ended,
        damaged,
        misused_descriptor,
        left_open,
        failed_run
    };

    // The first two and an ending that somebody asked for are for the reader to know: nothing is wrong.
    bool is_fault() const {
        return kind != Kind::unchecked && kind != Kind::note && kind != Kind::ended;
    }

    Kind kind;
    std::string what;          // the same for all of its kind: "written past the end (WO)"
    std::string title;         // "WO: a block of 4 bytes at 0xD0 was written past its end"
    std::vector<Trail> trails; // oldest first, but those of a stop
    uint64_t count = 1;        // of blocks or descriptors
    uint64_t bytes = 0;
    int process = 0;            // of a stop, or of what went on: who it was
    const Site *site = nullptr; // of a damaged block
};

// One at a time: a damaged report may have millions.
using TakeFinding = std::function<void(const Finding &)>;
void each_finding(const Report &report, const Process &process, const TakeFinding &take);
