// The stack trace behind one operation, captured once and shared by whoever keeps a part of it.
#pragma once

#include "platform/platform.h"

#include <span>

namespace k42mc::internal {

struct StackTrace {
    static constexpr int deepest = 16;

    // Makes at least the `wanted` innermost frames available; walks the stack only if it has to.
    void capture(int wanted) {
        if (depth < wanted) {
            count = platform::backtrace_skip(frames, wanted, mark);
            depth = wanted;
        }
    }

    std::span<void *const> innermost(int most) const {
        return {frames, static_cast<size_t>(count < most ? count : most)};
    }

    void *frames[deepest];
    int count = 0;
    int depth = 0; // frames asked for so far
    platform::TraceMark mark = {};
};

} // namespace k42mc::internal
