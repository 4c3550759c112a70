#include "memcheck/reach/loss.h"

#include "memcheck/registry.h"

#include <tuple>

namespace k42mc::internal {
namespace {

// Groups are found in two passes. The first goes wherever blocks lead, the oldest first, and notes when it has seen
// all behind a block. In the second, whoever was done last leads: nobody else that is lost leads there, or only such
// as it leads to itself.
class Loss {
public:
    explicit Loss(Search &search)
        : search_(search), memory_(bytes_for(search.blocks().size())),
          lost_(memory_.take<uint32_t>(search.blocks().size())),
          path_(memory_.take<Step>(search.blocks().size())),
          done_(memory_.take<uint32_t>(search.blocks().size())),
          marks_(memory_.take<uint32_t>(search.blocks().size())) {}

    bool run();
    void list(uint32_t limit, LostBlockList &list);

private:
    // A block, and how far it has been looked at.
    struct Step {
        uint32_t index;
        uintptr_t at;
    };

    static constexpr uint32_t is_seen = UINT32_MAX;

    static size_t bytes_for(size_t count) { return count * (sizeof(Step) + 3 * sizeof(uint32_t)) + 1; }

    uint64_t order_of(uint32_t index) const { return record_at(search_.blocks()[index].number).order(); }
    uint32_t leader_of(uint32_t index) const { return marks_[index] - 1; }
    void find_lost();
    template <class Done> void walk(uint32_t first, uint32_t unmarked, uint32_t mark, Done done);

    Search &search_;
    WorkMemory memory_;
    std::span<uint32_t> lost_; // oldest first
    std::span<Step> path_;
    std::span<uint32_t> done_;
    std::span<uint32_t> marks_; // by index: 0, is_seen, then the leader's index plus 1
};

void Loss::find_lost() {
    size_t count = 0;
    for (uint32_t i = 0; i < search_.blocks().size(); ++i)
        if (!search_.is_reached(i))
            lost_[count++] = i;
    lost_ = lost_.first(count);
    std::sort(lost_.begin(), lost_.end(),
              [this](uint32_t a, uint32_t b) { return order_of(a) < order_of(b); });
}

// Into the depth, to whatever lost block has the one mark and gets the other. What lies in another block is behind it.
template <class Done> void Loss::walk(uint32_t first, uint32_t unmarked, uint32_t mark, Done done) {
    size_t depth = 0;
    const auto enter = [&](uint32_t index) {
        marks_[index] = mark;
        path_[depth++] = {index, search_.blocks()[index].begin};
    };
    enter(first);
    while (depth != 0) {
        Step &step = path_[depth - 1];
        uint32_t index = search_.next_pointer(step.at, search_.blocks()[step.index].end);
        if (index == Block::none) {
            done(step.index);
            --depth;
            continue;
        }
        for (; index != Block::none; index = search_.blocks()[index].outer)
            if (!search_.is_reached(index) && marks_[index] == unmarked)
                enter(index);
    }
}

bool Loss::run() {
    if (!memory_)
        return false;
    find_lost();
    uint32_t count = 0;
    for (const uint32_t index : lost_)
        if (marks_[index] == 0)
            walk(index, 0, is_seen, [&](uint32_t seen) { done_[count++] = seen; });
    while (count != 0)
        if (const uint32_t index = done_[--count]; marks_[index] == is_seen)
            walk(index, is_seen, index + 1, [](uint32_t) {});
    return true;
}

void Loss::list(uint32_t limit, LostBlockList &list) {
    const auto place_of = [this](uint32_t index) {
        const uint32_t leader = leader_of(index);
        return std::tuple(order_of(leader), index != leader, order_of(index));
    };
    std::sort(lost_.begin(), lost_.end(),
              [&](uint32_t a, uint32_t b) { return place_of(a) < place_of(b); });
    for (const uint32_t index : lost_) {
        const uint32_t number = search_.blocks()[index].number;
        const Record &record = record_at(number);
        if (is_reported(record) && record.age(gMCCycle) >= limit)
            list.blocks[list.count++] = {record.order(), number, leader_of(index) != index};
    }
}

} // namespace

bool list_lost_blocks(Search &search, uint32_t limit, LostBlockList &list) {
    Loss loss(search);
    if (!loss.run())
        return false;
    loss.list(limit, list);
    list.is_complete = true;
    return true;
}

} // namespace k42mc::internal
