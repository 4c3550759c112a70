// Standard error as the checkers use it.
#pragma once

#include "base/fork.h"
#include "base/printing.h"

#include <stdio.h>

namespace k42mc::internal {

// For a function that prints on standard error, to be taken ahead of a lock of ours: a thread that holds
// the stream's own lock may be waiting in a wrapper.
class TerminalLock {
public:
    explicit TerminalLock(bool wanted = true) : stream_(wanted ? stderr : nullptr) {
        hook_fork();
        if (stream_ != nullptr)
            flockfile(stream_);
    }
    ~TerminalLock() {
        if (stream_ != nullptr)
            funlockfile(stream_);
    }
    TerminalLock(const TerminalLock &) = delete;
    TerminalLock &operator=(const TerminalLock &) = delete;

private:
    const Printing printing_;
    FILE *const stream_;
};

// Writes to a stream at once. For where a lock of ours is held without the stream's: text for standard
// error goes past it, to its descriptor if it has one.
void write_text(FILE *out, const char *text, size_t size);

} // namespace k42mc::internal
