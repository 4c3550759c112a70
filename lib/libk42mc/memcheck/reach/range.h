#pragma once

#include "platform/platform.h"

#include <algorithm>
#include <span>

namespace k42mc::internal {

struct Range {
    uintptr_t begin, end;

    template <class Element> static Range of(const Element *first, size_t count) {
        return {reinterpret_cast<uintptr_t>(first), reinterpret_cast<uintptr_t>(first + count)};
    }
};

// Ranges that are left out of others. They may overlap.
class RangeSet {
public:
    explicit RangeSet(std::span<Range> room) : room_(room) {}

    // What does not fit in is not left out.
    void add(uintptr_t begin, uintptr_t end) {
        if (begin < end && count_ < room_.size())
            room_[count_++] = {begin, end};
    }

    // Puts them in order, and those that touch together.
    void sort() {
        std::sort(room_.begin(), room_.begin() + static_cast<ptrdiff_t>(count_),
                  [](const Range &a, const Range &b) { return a.begin < b.begin; });
        size_t kept = 0;
        for (const Range &range : room_.first(count_)) {
            if (kept != 0 && range.begin <= room_[kept - 1].end)
                room_[kept - 1].end = std::max(room_[kept - 1].end, range.end);
            else
                room_[kept++] = range;
        }
        count_ = kept;
    }

    // Calls action with each piece of a range that lies in none of them.
    template <class Action> void each_piece_outside(Range range, Action action) const {
        for (const Range &left_out : room_.first(count_)) {
            if (left_out.begin >= range.end)
                break;
            if (left_out.begin > range.begin)
                action(Range{range.begin, left_out.begin});
            range.begin = std::max(range.begin, left_out.end);
            if (range.begin >= range.end)
                return;
        }
        if (range.begin < range.end)
            action(range);
    }

private:
    const std::span<Range> room_;
    size_t count_ = 0;
};

} // namespace k42mc::internal
