#include "memcheck/lane.h"

#include "base/errno_keeper.h"
#include "platform/platform.h"

#include <iterator>
#include <new>

namespace k42mc::internal {
namespace {

// Of threads for which there is no memory: used under gMCLock.
constinit Lane common_lane;

constinit Lane first_lanes[64];
constinit std::atomic<size_t> first_lanes_used = 0;

Lane *new_lane() {
    if (first_lanes_used.load(std::memory_order_relaxed) < std::size(first_lanes)) {
        const size_t used = first_lanes_used.fetch_add(1, std::memory_order_relaxed);
        if (used < std::size(first_lanes))
            return &first_lanes[used];
    }
    void *room = platform::map_memory(sizeof(Lane));
    return room != nullptr ? new (room) Lane : nullptr;
}

// Null when memory runs out.
Lane *claim_lane() {
    const ErrnoKeeper errno_keeper;
    if (!adopt_visitor()) {
        if (Lane *lane = new_lane())
            add_visitor(*lane);
    }
    return static_cast<Lane *>(own_visitor);
}

template <class Action> void for_each_lane(Action action) {
    action(common_lane);
    for (Visitor *visitor = all_visitors.load(); visitor != nullptr; visitor = visitor->next)
        action(static_cast<Lane &>(*visitor));
}

bool free_soon() {
    constexpr int most_moments = 100;
    for (int moments = 0; moments < most_moments; ++moments) {
        if (!platform::is_held(gMCLock))
            return true;
        platform::wait_a_moment();
    }
    return false;
}

} // namespace

// Who has to wait for gMCLock works under it, as others see it held then: so they all get on. A signal
// handler that interrupted its thread inside can neither go in a second time nor wait: it records nothing.
void Recording::enter_slowly() {
    if (lane_ == nullptr)
        lane_ = claim_lane();
    else if (is_busy())
        lane_ = nullptr;
    if (lane_ == nullptr && own_visitor != nullptr)
        return;
    const bool entered = lane_ != nullptr && free_soon() && lane_->enter();
    if (!entered) {
        if (lane_ == nullptr)
            lane_ = &common_lane;
        lane_->place.store(Visitor::at_lock, std::memory_order_relaxed);
        locked_ = lock(gMCLock, LockRank::checker) == 0;
        if (!locked_) {
            end();
            return;
        }
    }
    if (!checker_on())
        end();
}

Lane &lane_of_lock_holder() {
    if (own_visitor == nullptr)
        claim_lane();
    return own_visitor != nullptr ? static_cast<Lane &>(*own_visitor) : common_lane;
}

Traffic total_traffic() {
    Traffic total;
    for_each_lane([&](const Lane &lane) { total += lane.traffic; });
    return total;
}

void hand_over_tallies() {
    for_each_lane([](Lane &lane) {
        lane.tallies.allocated.hand_over();
        lane.tallies.outlived.hand_over();
    });
}

void forget_tallies() {
    for_each_lane([](Lane &lane) {
        lane.tallies.allocated.forget();
        lane.tallies.outlived.forget();
    });
}

void clear_lanes() {
    forget_tallies();
    for_each_lane([](Lane &lane) {
        lane.free_records.forget();
        lane.traffic = {};
    });
}

void each_lanes_numbers(FunctionRef<void(const void *, size_t)> action) {
    for_each_lane([&](const Lane &lane) {
        action(&lane.tallies, sizeof lane.tallies);
        action(&lane.memo, sizeof lane.memo);
    });
}

} // namespace k42mc::internal
