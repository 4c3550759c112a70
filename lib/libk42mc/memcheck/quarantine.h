// Released blocks that are kept from their allocator for a while, in the order of their release, roughly. Each thread
// gathers its own in a batch, without a lock; batches that are full wait in one queue.
//
//   a thread: batch -> batch -> batch ... queue of all -> the allocator
//
// A batch's owner alone adds to it, block first, count next; what has been counted does not change until it is taken
// out, for which gMCQuarantineLock is held. So whoever holds that may look at everything.
#pragma once

#include "base/function_ref.h"
#include "base/locks.h"
#include "memcheck/retired_block.h"

#include <atomic>
#include <span>

namespace k42mc::internal {

// How many bytes may be kept, guards and the quarantine's own memory counted; 0 while there is no quarantine.
extern constinit std::atomic<size_t> quarantine_limit;

inline bool quarantine_on() {
    return quarantine_limit.load(std::memory_order_relaxed) != 0;
}

// One operation of the calling thread: what a handler of a signal, or the underlying allocator, releases meanwhile, goes
// past the quarantine.
class AtQuarantine {
public:
    AtQuarantine();
    ~AtQuarantine();
    AtQuarantine(const AtQuarantine &) = delete;
    AtQuarantine &operator=(const AtQuarantine &) = delete;

    // False where this thread is in the midst of another one.
    explicit operator bool() const { return entered_; }

private:
    const bool entered_;
};

// To be called once ahead of all, with no lock held.
void prepare_quarantine();

// Whether a block of that size, with its guards, may be kept.
bool fits_quarantine(size_t raw_size);

// As the system numbers the calling thread.
uint32_t number_of_thread();

// Keeps a block. False where there is no memory for that: it is the caller's then. `others_must_go` says whether
// it is time for overdue blocks to leave. At the quarantine.
bool keep_retired(const RetiredBlock &block, bool &others_must_go);

// Takes the oldest that are beyond the limit, or of all, as many as there is room for. Returns how many.
enum class Leaving { overdue, all };
size_t take_retired(Leaving leaving, std::span<RetiredBlock> room);

// Calls action with each until it returns false. With gMCLock held or not; nothing may be released meanwhile.
void each_retired(FunctionRef<bool(const RetiredBlock &)> action);

// The one with that user pointer, as far as that can be told without waiting long.
bool find_retired(const void *user, RetiredBlock &found);

// For who stops or copies the process.
class QuarantineLock {
public:
    QuarantineLock();
    ~QuarantineLock();
    QuarantineLock(const QuarantineLock &) = delete;
    QuarantineLock &operator=(const QuarantineLock &) = delete;

private:
    const AtQuarantine at_quarantine_;
};

// The same around a fork. In the child, what threads had gathered that are not there waits with the rest.
void lock_quarantine();
void unlock_quarantine();
void renew_quarantine();

// With the lock held: the memory that is the quarantine's own.
size_t quarantine_chunk_count();
void each_quarantine_chunk(FunctionRef<void(const void *, size_t)> action);

} // namespace k42mc::internal
