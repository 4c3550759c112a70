// How threads record: each in a lane of its own, with free records and counters that no other touches while
// it is inside the gate (base/gate.h).
#pragma once

#include "base/checker_lock.h"
#include "base/function_ref.h"
#include "memcheck/record_store.h"
#include "memcheck/site_counts.h"
#include "memcheck/site_memo.h"
#include "memcheck/traffic.h"

namespace k42mc::internal {

struct alignas(64) Lane : Visitor {
    FreeRecords free_records;
    Traffic traffic; // since the registry was made
    SiteTallies tallies;
    SiteMemo memo;
};

// One operation of the calling thread on the registry: while it lives, nobody who holds gMCLock looks.
class Recording {
public:
    Recording() {
        if (thread_is_printing)
            return;
        lane_ = static_cast<Lane *>(own_visitor);
        if (lane_ == nullptr || !enter()) [[unlikely]]
            enter_slowly();
        else if (!checker_on()) [[unlikely]]
            end();
    }
    ~Recording() {
        if (lane_ != nullptr)
            end();
    }
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;

    // False while the checker is off, and for what the checker itself allocates.
    explicit operator bool() const { return lane_ != nullptr; }
    Lane &lane() const { return *lane_; }

private:
    bool is_busy() const { return lane_->place.load(std::memory_order_relaxed) != Visitor::outside; }
    bool enter() { return !is_busy() && lane_->enter(); }
    void enter_slowly();

    void end() {
        if (locked_) [[unlikely]]
            release_checker_lock();
        lane_->leave();
        lane_ = nullptr;
    }

    Lane *lane_ = nullptr;
    bool locked_ = false; // under gMCLock
};

// What is left to do under gMCLock about a recording that is over. Signal handlers must not wait for that
// lock meanwhile, as they interrupt who holds it: they record nothing.
class RecordingAtLock {
public:
    RecordingAtLock() {
        if (own_visitor != nullptr)
            own_visitor->place.store(Visitor::at_lock, std::memory_order_relaxed);
    }
    ~RecordingAtLock() {
        if (own_visitor != nullptr)
            own_visitor->leave();
    }
    RecordingAtLock(const RecordingAtLock &) = delete;
    RecordingAtLock &operator=(const RecordingAtLock &) = delete;
};

// The lane of who holds gMCLock.
Lane &lane_of_lock_holder();

// With gMCLock held.
Traffic total_traffic();
void hand_over_tallies();
void forget_tallies();
void clear_lanes();

// With gMCLock held, or all other threads stopped.
void each_lanes_numbers(FunctionRef<void(const void *, size_t)> action);

} // namespace k42mc::internal
