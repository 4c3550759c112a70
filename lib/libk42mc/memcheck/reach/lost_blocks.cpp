#include "memcheck/reach/lost_blocks.h"

#include "memcheck/reach/loss.h"
#include "memcheck/registry.h"

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

LostBlocks::~LostBlocks() {
    if (list_ != nullptr)
        platform::unmap_memory(list_, list_bytes_);
}

// Returns whether there is one to be filled.
bool LostBlocks::make_list(uint32_t limit) {
    generation_ = gMCGeneration;
    list_bytes_ = sizeof *list_ + most_records() * sizeof *list_->blocks;
    list_ = static_cast<LostBlockList *>(platform::map_shared_memory(list_bytes_));
    if (list_ == nullptr)
        return false;
    list_->is_complete = nothing_to_find(limit);
    return !list_->is_complete;
}

const char *LostBlocks::search(const char *function, const Caller &caller, uint32_t limit) {
    auto is_needed = [&] { return make_list(limit); };
    auto look = [&](const Moment &moment) {
        Search search(moment);
        if (search.run())
            list_lost_blocks(search, limit, *list_);
    };
    Inspection inspection;
    const char *const obstacle = inspection.run(function, caller, is_needed, look);
    held_threads_ = inspection.held_threads();
    const bool is_done = list_ != nullptr && list_->is_complete;
    return obstacle == nullptr && !is_done ? Search::no_result : obstacle;
}

} // namespace k42mc::internal
