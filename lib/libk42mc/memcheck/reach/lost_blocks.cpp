#include "memcheck/reach/lost_blocks.h"

#include "base/locks.h"
#include "base/printing.h"
#include "base/sequence.h"
#include "memcheck/control_lock.h"
#include "memcheck/reach/loss.h"
#include "memcheck/registry.h"
#include "platform/handed_words.h"
#include "platform/process_copy.h"
#include "platform/stack.h"

namespace k42mc::internal {
namespace {

constinit pthread_mutex_t gMCSearchLock = PTHREAD_MUTEX_INITIALIZER;

class SearchLock {
public:
    SearchLock() { lock(gMCSearchLock, LockRank::searches); }
    ~SearchLock() { unlock(gMCSearchLock, LockRank::searches); }
    SearchLock(const SearchLock &) = delete;
    SearchLock &operator=(const SearchLock &) = delete;
};

struct Task {
    const Moment &moment;
    uint32_t limit;
    LostBlockList &list;
};

void carry_out(void *argument) {
    const Task &task = *static_cast<const Task *>(argument);
    Search search(task.moment);
    if (search.run())
        list_lost_blocks(search, task.limit, task.list);
}

bool nothing_to_find(uint32_t limit) {
    bool none = true;
    for_each_record([&](const Record &record) {
        none = none && !(is_reported(record) && record.age(gMCCycle) >= limit);
    });
    return none;
}

// In any thread's, even one that has ended.
void learn_control_blocks() {
    for (const Visitor *visitor = all_visitors; visitor != nullptr; visitor = visitor->next)
        if (platform::know_control_blocks(visitor->thread))
            return;
}

// In memory that is as good a root as any.
using HandedWords = Sequence<uintptr_t>;

// On 32 bits, a program may have put a pointer into either half.
bool take_handed_word(void *words, uint64_t word) {
    for (; word != 0; word = sizeof(uintptr_t) < sizeof word ? word >> 32 : 0) {
        uintptr_t *const taken = static_cast<HandedWords *>(words)->add();
        if (taken == nullptr)
            return false;
        *taken = static_cast<uintptr_t>(word);
    }
    return true;
}

} // namespace

LostBlocks::~LostBlocks() {
    if (list_ != nullptr)
        platform::unmap_memory(list_, list_bytes_);
}

// Returns what is in the way, or null. The search goes on in a copy of the process where other threads wait for it.
const char *LostBlocks::start_search(const Caller &caller, uint32_t limit,
                                     platform::ThreadCaches caches) {
    const size_t most = size_t{gMCChunkCount} * Chunk::room;
    generation_ = gMCGeneration;
    list_bytes_ = sizeof *list_ + most * sizeof *list_->blocks;
    list_ = static_cast<LostBlockList *>(platform::map_shared_memory(list_bytes_));
    if (list_ == nullptr)
        return "memory has run out";
    list_->is_complete = nothing_to_find(limit);
    if (list_->is_complete)
        return nullptr;
    learn_control_blocks();
    const platform::ThreadStop stop;
    if (stop.outcome() != platform::StopOutcome::whole)
        return stop.outcome() == platform::StopOutcome::partial
                   ? "a thread does not stop, so that its registers are not known"
                   : "the system does not tell what threads there are";
    HandedWords handed;
    if (!platform::each_handed_word(take_handed_word, &handed))
        return "the system does not tell what it keeps for the process";
    const Moment moment = {caller, stop.threads(), most, caches};
    Task task = {moment, limit, *list_};
    if (!stop.threads().empty())
        copy_ = platform::start_copy(carry_out, &task);
    held_threads_ = !stop.threads().empty() && copy_ < 0;
    if (copy_ < 0)
        carry_out(&task);
    return nullptr;
}

const char *LostBlocks::search(const char *function, const Caller &caller, uint32_t limit) {
    if (platform::borrows_memory())
        return "the process runs on its parent's memory";
    const Printing printing;
    const SearchLock one_at_a_time;
    const auto caches = platform::ThreadCaches::learn();
    const char *obstacle;
    {
        const ControlLock lock(function);
        obstacle = !lock               ? "the checker's lock cannot be had"
                   : registry_exists() ? start_search(caller, limit, caches)
                                       : "MC not currently initialized";
    }
    if (copy_ > 0)
        platform::wait_for_copy(copy_);
    return obstacle == nullptr && !list_->is_complete
               ? "memory has run out, or the system does not tell what memory there is"
               : obstacle;
}

void forget_searches() {
    gMCSearchLock = PTHREAD_MUTEX_INITIALIZER;
    platform::ThreadStop::forget();
}

} // namespace k42mc::internal
