#include "memcheck/reach/lost_blocks.h"

#include "memcheck/reach/inspection.h"
#include "memcheck/reach/loss.h"

namespace k42mc::internal {
namespace {

bool nothing_to_find(uint32_t limit) {
    bool none = true;
    for_each_record([&](const Record &record) {
        none = none && !(is_reported(record) && record.age(gMCCycle) >= limit);
    });
    return none;
}

} // namespace

const char *LostBlocks::search(const char *function, const Caller &caller, uint32_t limit,
                               Wanted wanted) {
    auto is_needed = [&] {
        if (list_.make())
            list_->is_complete = nothing_to_find(limit);
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
