#include "memcheck/reach/inspection.h"

#include "base/locks.h"
#include "base/printing.h"
#include "base/sequence.h"
#include "memcheck/control_lock.h"
#include "memcheck/quarantine.h"
#include "memcheck/record_store.h"
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
    FunctionRef<void(const Moment &)> look;
};

void carry_out(void *argument) {
    const Task &task = *static_cast<const Task *>(argument);
    task.look(task.moment);
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

// What a look at the process is done in.
struct Place {
    bool is_process = false; // itself, while its threads stand still
    pid_t copy = -1;
};

const char *start(const Caller &caller, platform::ThreadCaches caches,
                  FunctionRef<void(const Moment &)> look, Place &place) {
    learn_control_blocks();
    const QuarantineLock quarantine_lock;
    const platform::ThreadStop stop;
    if (stop.outcome() != platform::StopOutcome::whole)
        return stop.outcome() == platform::StopOutcome::partial
                   ? "a thread does not stop, so that its registers are not known"
                   : "the system does not tell what threads there are";
    HandedWords handed;
    if (!platform::each_handed_word(take_handed_word, &handed))
        return "the system does not tell what it keeps for the process";
    const Moment moment = {caller, stop.threads(), most_records(), caches,
                           Range::of(handed.records, handed.size)};
    Task task = {moment, look};
    if (!stop.threads().empty())
        place.copy = platform::start_copy(carry_out, &task);
    place.is_process = !stop.threads().empty() && place.copy < 0;
    if (place.copy < 0)
        carry_out(&task);
    return nullptr;
}

} // namespace

const char *inspect(const char *function, const Caller &caller, FunctionRef<bool()> is_needed,
                    FunctionRef<void(const Moment &)> look) {
    if (platform::borrows_memory())
        return "the process runs on its parent's memory";
    const Printing printing;
    const SearchLock one_at_a_time;
    const auto caches = platform::ThreadCaches::learn();
    Place place;
    const char *obstacle;
    {
        const ControlLock lock(function);
        obstacle = !lock                ? "the checker's lock cannot be had"
                   : !registry_exists() ? "MC not currently initialized"
                   : is_needed()        ? start(caller, caches, look, place)
                                        : nullptr;
    }
    if (place.copy > 0)
        platform::wait_for_copy(place.copy);
    if (place.is_process)
        StandardErrorText()->print("%s: no copy of the process can be made: its threads stood still\n",
                                   function);
    return obstacle;
}

void forget_inspections() {
    gMCSearchLock = PTHREAD_MUTEX_INITIALIZER;
    platform::ThreadStop::forget();
}

} // namespace k42mc::internal
