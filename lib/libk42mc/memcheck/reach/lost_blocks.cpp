#include "memcheck/reach/lost_blocks.h"

#include "memcheck/inheritance.h"
#include "memcheck/reach/inspection.h"
#include "memcheck/reach/loss.h"

namespace k42mc::internal {
namespace {

struct Amount {
    size_t blocks, bytes;
};

Amount amount_to_find(uint32_t limit) {
    Amount amount = {0, 0};
    for_each_record([&](const Record &record) {
        if (is_reported(record) && record.age(gMCCycle) >= limit) {
            ++amount.blocks;
            amount.bytes += record.size;
        }
    });
    return amount;
}

// Scripts have thousands of children that live for a moment. What holds the little that is theirs would take longer to
// find than they live.
constexpr size_t least_of_heirs = 1 << 20;

} // namespace

const char *LostBlocks::search(const char *function, const Caller &caller, uint32_t limit,
                               Wanted wanted) {
    auto is_needed = [&] {
        const Amount amount = amount_to_find(limit);
        if (amount.bytes < least_of_heirs && is_heir())
            wanted = Wanted::lost;
        if (list_.make())
            list_->is_complete = amount.blocks == 0;
        return list_ && !list_->is_complete;
    };
    auto look = [&](const Moment &moment) {
        const bool wants_holders = wanted == Wanted::lost_and_holders;
        Search search(moment, wants_holders ? Search::Note::origins : Search::Note::nothing);
        if (!search.run())
            return;
        if (wants_holders)
            find_holders(search, moment, limit, list_->held);
        list_lost_blocks(search, limit, *list_);
    };
    const char *const obstacle = inspect(function, caller, is_needed, look);
    const bool is_done = list_ && list_->is_complete;
    return obstacle == nullptr && !is_done ? Search::no_result : obstacle;
}

} // namespace k42mc::internal
