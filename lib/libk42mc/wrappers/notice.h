// What is said of a defect, beside the line that is the same everywhere: of a release that stops the process, or of an
// access to what cannot be touched.
#pragma once

#include "k42mc_debug.h"

#include <span>

namespace k42mc::internal {

struct StopNotice {
    char words[640]; // one line, without its end

    // The stack trace behind the block, innermost first: of its allocation, or of the first of two releases.
    void *frames[16];
    size_t frame_count;

    // Of an access: where it was, and the block's release, if it was released. Empty for anything else.
    std::span<void *const> access = {}, release = {};
    bool goes_on = false; // the process is not stopped

    std::span<void *const> trace() const { return {frames, frame_count}; }
};

// Who keeps the stack traces elsewhere, so that standard error gets the words alone; null for nobody.
using StopRecorder = void (*)(const StopNotice &notice);
extern constinit StopRecorder record_stop;

// Writes past all streams. Allocates nothing, takes on trust nothing that it reads, and waits for nobody
// without end.
void explain_stop(const Stop &stop);

} // namespace k42mc::internal
