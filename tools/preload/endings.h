// Signals that end the process: its report is written ahead of the end, where it can be.
#pragma once

#include <signal.h>

struct Ending {
    int signal_number;
    const siginfo_t *info; // null where it is not known any more
    const void *context; // of the thread that it has interrupted; null where that is not known any more
    bool is_fault;       // or somebody's request
    bool inside_checker; // which may hold what a report needs
};

// Writes the last of the report, without entering the allocator, and waiting for nothing that this thread may
// hold.
using LastReport = void (*)(const Ending &ending);

// From now on; not for signals that are ignored.
void report_ahead_of_endings(LastReport last_report);
