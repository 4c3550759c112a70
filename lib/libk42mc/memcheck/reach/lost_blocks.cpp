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

const char *LostBlocks::search(const char *function, const Caller &caller, uint32_t limit) {
    auto is_needed = [&] {
        if (list_.make())
            list_->is_complete = nothing_to_find(limit);
        return list_ && !list_->is_complete;
    };
    auto look = [&](const Moment &moment) {
        Search search(moment);
        if (search.run())
            list_lost_blocks(search, limit, *list_);
    };
    const char *const obstacle = inspect(function, caller, is_needed, look);
    const bool is_done = list_ && list_->is_complete;
    return obstacle == nullptr && !is_done ? Search::no_result : obstacle;
}

} // namespace k42mc::internal
