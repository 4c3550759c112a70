// Standard error as the checkers use it: past the stream's buffer, and never waited for.
#pragma once

#include "base/printing.h"

#include <stdio.h>

namespace k42mc::internal {

// For whoever may hold a lock of ours: a thread that holds the stream may be waiting for that lock in a
// wrapper. A free stream is held as long as this lives, so that what the process has buffered there
// comes first and nothing comes between; one that another thread holds is written past.
class StandardError {
public:
    // Unwanted, it does nothing.
    explicit StandardError(bool wanted = true);
    ~StandardError();
    StandardError(const StandardError &) = delete;
    StandardError &operator=(const StandardError &) = delete;

    void write(const char *text, size_t size) const;

    // For what writes by itself; -1 for a stream of the process's own making.
    int descriptor() const { return descriptor_; }

private:
    FILE *const stream_ = stderr;
    const int descriptor_;
    const bool held_;
};

} // namespace k42mc::internal
