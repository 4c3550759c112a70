// What is said of a defect, beside the line that is the same everywhere: of a release that stops the process, or of an
// access to what cannot be touched.
#pragma once

#include "base/function_ref.h"
#include "base/text_output.h"
#include "k42mc_debug.h"
#include "memcheck/retired_block.h"

#include <span>

namespace k42mc::internal {

struct StopNotice {
    char words[640]; // one line, without its end

    // The stack trace behind the block, innermost first: of its allocation, or of the first of two releases.
    void *frames[16];
    size_t frame_count;

    // Of an access: where it was, if that is known, and the block's release, if it was released.
    bool is_access = false;
    std::span<void *const> access = {}, release = {};
    bool goes_on = false; // the process is not stopped

    std::span<void *const> trace() const { return {frames, frame_count}; }
};

// Who keeps the stack traces elsewhere, so that standard error gets the words alone; null for nobody.
using StopRecorder = void (*)(const StopNotice &notice);
extern constinit StopRecorder record_stop;

// Says the words on standard error. The traces go where somebody keeps them, else behind the words.
void give_notice(const StopNotice &notice, FunctionRef<void(TextOutput &)> put_traces);

// Writes past all streams. Allocates nothing, takes on trust nothing that it reads, and waits for nobody
// without end.
void explain_stop(const Stop &stop);

// The same of a block that was written to after its release.
void explain_late_write(const RetiredBlock &block, ptrdiff_t change);

} // namespace k42mc::internal
