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

// Of a thread that came too late.
constinit Memo gNone = {};

constexpr uint32_t shortest_rest = 256, most_doublings = 6;

uint64_t number_of(pid_t process, pid_t thread) {
    return uint64_t{static_cast<uint32_t>(process)} << 32 | static_cast<uint32_t>(thread);
}

// What a forked child inherits may be the memo of the thread that forked: the child leaves it alone.
bool is_abandoned(uint64_t owner, pid_t process) {
    return owner >> 32 == static_cast<uint32_t>(process) &&
           syscall(SYS_tgkill, process, static_cast<pid_t>(owner), 0) != 0;
}

} // namespace

Memo *Memo::claim() {
    const int kept_errno = errno;
    const pid_t process = getpid();
    const uint64_t self = number_of(process, gettid());
    gNone.in_use = true;
    own = &gNone;
    for (Memo &memo : gMemos) {
        uint64_t owner = memo.owner.load(std::memory_order_relaxed);
        if ((owner == 0 || is_abandoned(owner, process)) &&
            memo.owner.compare_exchange_strong(owner, self, std::memory_order_acquire)) {
            memo.in_use = false;
            memo.rest = 0;
            own = &memo;
            break;
        }
    }
    errno = kept_errno;
    return own;
}

// Traces that did not repeat for a while may do so later.
void Memo::retire() {
    credit = 0;
    rest = shortest_rest << std::min(rests++, most_doublings);
}

} // namespace k42mc::platform
