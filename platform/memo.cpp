#include "memo.h"

#include <algorithm>

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::platform {

constinit thread_local Memo *Memo::own = nullptr;

namespace {

// For so many threads at a time; only what is used takes memory. Nobody tells when a thread ends, and
// the thread's own memory is no place: a library that is loaded late finds little room there.
constinit Memo gMemos[64] = {};

// Of threads that came too late: always resting.
constinit Memo gNone = {};

// A trace with an unknown part costs about as much more as a known one saves: a memo rests when there
// were more of those than of the others. Traces that did not repeat may do so later.
constexpr uint32_t uses_to_judge = 64, shortest_rest = 512, most_doublings = 6;

uint64_t number_of(pid_t process, pid_t thread) {
    return uint64_t{static_cast<uint32_t>(process)} << 32 | static_cast<uint32_t>(thread);
}

// What a forked child inherits may be the memo of the thread that forked: the child leaves it alone.
bool is_abandoned(uint64_t owner, pid_t process) {
    return owner >> 32 == static_cast<uint32_t>(process) &&
           syscall(SYS_tgkill, process, static_cast<pid_t>(owner), 0) != 0;
}

} // namespace

void Memo::start() {
    state = available;
    uses = misses = rests = 0;
}

void Memo::claim() {
    const int kept_errno = errno;
    const pid_t process = getpid();
    const uint64_t self = number_of(process, gettid());
    gNone.state = resting;
    own = &gNone;
    for (Memo &memo : gMemos) {
        uint64_t owner = memo.owner.load(std::memory_order_relaxed);
        if ((owner == 0 || is_abandoned(owner, process)) &&
            memo.owner.compare_exchange_strong(owner, self, std::memory_order_acquire)) {
            memo.start();
            own = &memo;
            break;
        }
    }
    errno = kept_errno;
}

Memo *Memo::take_another_time() {
    if (!own)
        claim();
    else if (own != &gNone && own->state == resting && --own->rest == 0)
        own->state = available;
    return nullptr;
}

void Memo::give_back_after_miss() {
    State next_state = available;
    ++misses;
    if (uses >= uses_to_judge) {
        if (misses > uses / 2) {
            next_state = resting;
            rest = shortest_rest << std::min(rests++, most_doublings);
        } else {
            rests = 0;
        }
        uses = misses = 0;
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    state = next_state;
}

} // namespace k42mc::platform
