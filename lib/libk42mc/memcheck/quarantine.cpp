#include "memcheck/quarantine.h"

#include "base/errno_keeper.h"
#include "base/fork.h"
#include "platform/platform.h"
#include "platform/prefetch.h"
#include "platform/threads.h"

#include <algorithm>
#include <utility>

namespace k42mc::internal {

constinit std::atomic<size_t> quarantine_limit = 0;

namespace {

// Of the limit: what the batch of a thread may hold, what those of all threads may, and what a block may have.
constexpr size_t parts_a_thread = 256, parts_of_threads = 2, parts_a_block = 8;

struct Batch {
    static constexpr size_t bytes = 4096;
    static constexpr uint32_t room = (bytes - 8 * sizeof(void *)) / sizeof(RetiredBlock);

    Batch *next, *former;
    std::atomic<uint32_t> count; // blocks that were added: by the owner, or with the lock held
    uint32_t taken;              // of those, with the lock held
    size_t gathered;             // bytes of blocks: the owner's
    size_t quota;                // how many it may gather
    RetiredBlock blocks[room];

    bool is_full() const { return count.load(std::memory_order_relaxed) == room; }
    uint32_t room_left() const { return room - count.load(std::memory_order_relaxed); }
    bool has_any() const { return taken < count.load(std::memory_order_acquire); }

    void add(const RetiredBlock &block) {
        const uint32_t number = count.load(std::memory_order_relaxed);
        blocks[number] = block;
        count.store(number + 1, std::memory_order_release);
    }

    std::span<const RetiredBlock> rest() const {
        return std::span(blocks).first(count.load(std::memory_order_acquire)).subspan(taken);
    }
};

static_assert(sizeof(Batch) <= Batch::bytes);

class BatchList {
public:
    Batch *first() const { return first_; }
    Batch *last() const { return last_; }

    void add(Batch *batch) {
        batch->next = nullptr;
        batch->former = last_;
        (last_ != nullptr ? last_->next : first_) = batch;
        last_ = batch;
    }

    void remove(Batch *batch) {
        (batch->former != nullptr ? batch->former->next : first_) = batch->next;
        (batch->next != nullptr ? batch->next->former : last_) = batch->former;
    }

private:
    Batch *first_ = nullptr, *last_ = nullptr;
};

// Mapped at once, so that the process does not come to have thousands of mappings. They stay.
struct Chunk {
    static constexpr size_t room = 16;

    Chunk *next;
    Batch batches[room];
};

constinit pthread_mutex_t gMCQuarantineLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;

// All with the lock held.
constinit BatchList
    waiting; // full, in the order in which they became so; what has no batch of its own is in the last
constinit BatchList owned;         // by a thread each
constinit Batch *unused = nullptr; // a list
constinit Chunk *chunks = nullptr;
constinit size_t unused_in_chunk = 0; // batches of the last chunk that were never used
constinit size_t held = 0;            // bytes: of what waits, what owners may gather, and batches
constinit size_t reserved = 0;        // by owners, of those

constinit pthread_key_t end_of_thread = 0;
constinit bool ends_are_told = false;

struct Thread {
    Batch *batch = nullptr;
    uint32_t number = 0;        // as the system has it; 0: not asked for yet
    bool is_near_limit = false; // others leave while its batch fills
    bool is_at_quarantine = false;
    bool is_told = false;   // its end will be
    bool has_ended = false; // as good as: it gets no batch any more
};
constinit thread_local Thread self;

Batch *new_batch() {
    if (unused_in_chunk == 0) {
        auto *const chunk = static_cast<Chunk *>(platform::map_memory(sizeof(Chunk)));
        if (chunk == nullptr)
            return nullptr;
        chunk->next = std::exchange(chunks, chunk);
        unused_in_chunk = Chunk::room;
    }
    held += sizeof(Batch);
    return &chunks->batches[--unused_in_chunk];
}

// Null when memory runs out.
Batch *take_batch() {
    Batch *const batch = unused != nullptr ? std::exchange(unused, unused->next) : new_batch();
    if (batch != nullptr) {
        batch->count.store(0, std::memory_order_relaxed);
        batch->taken = 0;
    }
    return batch;
}

void give_batch(Batch *batch) {
    batch->next = std::exchange(unused, batch);
}

size_t quota_now() {
    return std::max(quarantine_limit.load(std::memory_order_relaxed) / parts_a_thread, sizeof(Batch));
}

void own_batch() {
    const size_t quota = quota_now();
    if (!self.is_told || self.has_ended ||
        reserved + quota > quarantine_limit.load(std::memory_order_relaxed) / parts_of_threads)
        return;
    Batch *const batch = take_batch();
    if (batch == nullptr)
        return;
    batch->gathered = 0;
    batch->quota = quota;
    held += quota;
    reserved += quota;
    owned.add(batch);
    self.batch = batch;
}

void disown(Batch *batch) {
    owned.remove(batch);
    held -= batch->quota;
    reserved -= batch->quota;
    if (!batch->has_any()) {
        give_batch(batch);
        return;
    }
    for (const RetiredBlock &block : batch->rest())
        held += block.raw_size;
    waiting.add(batch);
}

// For who has no batch. False when memory runs out.
bool add_to_waiting(const RetiredBlock &block) {
    Batch *batch = waiting.last();
    if (batch == nullptr || batch->is_full()) {
        batch = take_batch();
        if (batch == nullptr)
            return false;
        waiting.add(batch);
    }
    batch->add(block);
    held += block.raw_size;
    return true;
}

// What the calling thread has gathered counts as well as its quota, so that others leave little by little while its batch
// fills: the allocator has at hand then what the program asks for next.
bool is_overdue() {
    const size_t gathered = self.batch != nullptr ? self.batch->gathered : 0;
    return held + gathered > quarantine_limit.load(std::memory_order_relaxed);
}

// Whether there will be any before this batch is full.
void look_ahead() {
    self.is_near_limit = held + quota_now() > quarantine_limit.load(std::memory_order_relaxed);
}

// Whatever may wait for what is not ours comes ahead of the lock.
void ask_to_be_told() {
    const ErrnoKeeper keep_errno;
    if (!self.is_told && !self.has_ended && ends_are_told)
        self.is_told = pthread_setspecific(end_of_thread, &self) == 0;
}

bool keep_without_batch(const RetiredBlock &block, bool &others_must_go) {
    ask_to_be_told();
    const QuarantineLock lock;
    own_batch();
    const bool kept = add_to_waiting(block);
    others_must_go = is_overdue();
    return kept;
}

void end_thread(void *) {
    self.has_ended = true;
    const QuarantineLock lock;
    if (self.batch != nullptr)
        disown(std::exchange(self.batch, nullptr));
}

const Batch *first_with_any() {
    for (const Batch *batch = owned.first(); batch != nullptr; batch = batch->next)
        if (batch->has_any())
            return batch;
    return nullptr;
}

// What has been kept back for long has left the caches. What will be looked at soon is asked for in time, with the
// sizes that the allocator has ahead of it and behind it.
void prefetch(uintptr_t begin, size_t size) {
    constexpr size_t line = 64;
    for (size_t at = 0; at < size; at += line)
        platform::prefetch(begin + at);
    platform::prefetch(begin + size);
}

void prefetch_behind(const Batch &batch) {
    constexpr uint32_t ahead = 8;
    constexpr size_t most = 1024;
    const auto count_of = [](const Batch &each) { return each.count.load(std::memory_order_relaxed); };
    const Batch *in = &batch;
    uint32_t number = batch.taken + ahead;
    if (number >= count_of(batch)) {
        number -= count_of(batch);
        in = batch.next;
        if (in == nullptr || number >= count_of(*in))
            return;
    }
    const RetiredBlock &block = in->blocks[number];
    prefetch(reinterpret_cast<uintptr_t>(&block) + ahead * sizeof block, sizeof block);
    prefetch(reinterpret_cast<uintptr_t>(block.raw) - sizeof(size_t),
             std::min(block.raw_size + 2 * sizeof(size_t), most));
}

// False where none waits.
bool take_from_waiting(RetiredBlock &taken) {
    Batch *const batch = waiting.first();
    if (batch == nullptr)
        return false;
    prefetch_behind(*batch);
    taken = batch->blocks[batch->taken++];
    held -= taken.raw_size;
    if (!batch->has_any()) {
        waiting.remove(batch);
        give_batch(batch);
    }
    return true;
}

// Of the room that the owner may still use, nothing is gained by that.
bool take_from_owned(RetiredBlock &taken) {
    auto *const batch = const_cast<Batch *>(first_with_any());
    if (batch == nullptr)
        return false;
    taken = batch->blocks[batch->taken++];
    return true;
}

void take_lock() {
    lock_unnoted(gMCQuarantineLock, LockRank::quarantine);
}

void let_lock_go() {
    unlock_unnoted(gMCQuarantineLock);
}

bool lock_in_time() {
    constexpr int most_tries = 1000;
    if (thread_is_forking)
        return true;
    if (self.is_at_quarantine)
        return false;
    for (int tries = 0; pthread_mutex_trylock(&gMCQuarantineLock) != 0; ++tries) {
        if (tries == most_tries)
            return false;
        platform::sleep_briefly();
    }
    return true;
}

bool each_in(const BatchList &list, FunctionRef<bool(const RetiredBlock &)> action) {
    for (const Batch *batch = list.first(); batch != nullptr; batch = batch->next)
        for (const RetiredBlock &block : batch->rest())
            if (!action(block))
                return false;
    return true;
}

constinit pthread_once_t prepared = PTHREAD_ONCE_INIT;

} // namespace

AtQuarantine::AtQuarantine() : entered_(!std::exchange(self.is_at_quarantine, true)) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

AtQuarantine::~AtQuarantine() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (entered_)
        self.is_at_quarantine = false;
}

// Threads tell of their ends by a function of the library.
void prepare_quarantine() {
    pthread_once(&prepared, [] {
        const ErrnoKeeper keep_errno;
        hook_fork();
        platform::stay_loaded();
        ends_are_told = pthread_key_create(&end_of_thread, end_thread) == 0;
    });
}

bool fits_quarantine(size_t raw_size) {
    return raw_size <= quarantine_limit.load(std::memory_order_relaxed) / parts_a_block;
}

uint32_t number_of_thread() {
    if (self.number == 0)
        self.number = static_cast<uint32_t>(platform::own_thread());
    return self.number;
}

bool keep_retired(const RetiredBlock &block, bool &others_must_go) {
    Batch *const batch = self.batch;
    if (batch == nullptr) [[unlikely]]
        return keep_without_batch(block, others_must_go);
    batch->add(block);
    batch->gathered += block.raw_size;
    if (batch->gathered < batch->quota && !batch->is_full()) [[likely]] {
        constexpr uint32_t at_a_time = 4;
        others_must_go = self.is_near_limit && batch->room_left() % at_a_time == 0;
        return true;
    }
    const QuarantineLock lock;
    disown(std::exchange(self.batch, nullptr));
    own_batch();
    look_ahead();
    others_must_go = is_overdue();
    return true;
}

// What another thread adds at this moment it may still be keeping when all have gone.
size_t take_retired(Leaving leaving, std::span<RetiredBlock> room) {
    const QuarantineLock lock;
    const bool all = leaving == Leaving::all;
    size_t count = 0;
    while (count < room.size() && (all || is_overdue()) &&
           (take_from_waiting(room[count]) || (all && take_from_owned(room[count]))))
        ++count;
    return count;
}

void each_retired(FunctionRef<bool(const RetiredBlock &)> action) {
    const QuarantineLock lock;
    if (each_in(waiting, action))
        each_in(owned, action);
}

bool find_retired(const void *user, RetiredBlock &found) {
    if (!lock_in_time())
        return false;
    bool is_found = false;
    auto is_other = [&](const RetiredBlock &block) {
        is_found = block.user == user;
        if (is_found)
            found = block;
        return !is_found;
    };
    if (each_in(waiting, is_other))
        each_in(owned, is_other);
    let_lock_go();
    return is_found;
}

QuarantineLock::QuarantineLock() {
    take_lock();
}

QuarantineLock::~QuarantineLock() {
    let_lock_go();
}

// A handler that forks in the midst of an operation may have interrupted the lock's owner: that goes on in both processes.
void lock_quarantine() {
    if (!self.is_at_quarantine)
        take_lock();
}

void unlock_quarantine() {
    if (!self.is_at_quarantine)
        let_lock_go();
}

void renew_quarantine() {
    self.number = 0;
    if (self.is_at_quarantine)
        return;
    gMCQuarantineLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
    for (Batch *batch = owned.first(), *next; batch != nullptr; batch = next) {
        next = batch->next;
        if (batch != self.batch)
            disown(batch);
    }
}

size_t quarantine_chunk_count() {
    size_t count = 0;
    for (const Chunk *chunk = chunks; chunk != nullptr; chunk = chunk->next)
        ++count;
    return count;
}

void each_quarantine_chunk(FunctionRef<void(const void *, size_t)> action) {
    for (const Chunk *chunk = chunks; chunk != nullptr; chunk = chunk->next)
        action(chunk, sizeof *chunk);
}

} // namespace k42mc::internal
