#pragma once

namespace k42mc::internal {

// Where a wrapper was called. The file name outlives the block.
struct Site {
    const char *file;
    int line;
};

} // namespace k42mc::internal
