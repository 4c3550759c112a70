// Where a stack ends is known without asking anybody: the first thread's frames lie below what the
// program was started with, those of other threads below their control block, which the C library puts
// at the top of the stack. Whether a stack pointer belongs to that stack is seen from the pages between,
// all of which can be read then: below each thread's stack lies a page that cannot.
#include "platform/stack.h"

#include "platform/platform.h"

#include <algorithm>
#include <atomic>

#include <pthread.h>

extern "C" {
extern void *__libc_stack_end;
}

namespace k42mc::internal::platform {

constinit thread_local Stack own_stack = {0, 0};

namespace {

// A walk that starts so much deeper than any before is treated as one on a stack of the process's own
// making.
constexpr uintptr_t deepest_start = 64u << 20;

// How much of a stack of the process's own making a walk sees. Enough for the callers of an allocation
// as a rule, at a system call a page each time, since nobody says when such a stack goes away.
constexpr uintptr_t foreign_pages = 16;

uintptr_t nearest_top(uintptr_t stack_pointer) {
    const auto first = reinterpret_cast<uintptr_t>(__libc_stack_end);
    const auto other = static_cast<uintptr_t>(pthread_self());
    return std::min(first > stack_pointer ? first : UINTPTR_MAX,
                    other > stack_pointer ? other : UINTPTR_MAX);
}

// In an order that shows a signal handler no stack that is larger than what is known.
void remember(const Stack &stack) {
    own_stack.low = UINTPTR_MAX;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    own_stack.high = stack.high;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    own_stack.low = stack.low;
}

} // namespace

Stack find_stack(uintptr_t stack_pointer) {
    const uintptr_t page = page_size(), low = stack_pointer & -page, top = nearest_top(stack_pointer);
    const Stack own = own_stack;
    const uintptr_t known = own.high == top && own.low > low ? own.low : top;
    if ((own.high == 0 || own.high == top) && known - low <= deepest_start &&
        readable(reinterpret_cast<const void *>(low), known - low)) {
        remember({low, top});
        return own_stack;
    }
    uintptr_t high = low;
    for (uintptr_t pages = 0; pages < foreign_pages; ++pages, high += page)
        if (!readable(reinterpret_cast<const void *>(high), page))
            break;
    return {low, high};
}

} // namespace k42mc::internal::platform
