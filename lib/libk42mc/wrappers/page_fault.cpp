#include "wrappers/page_fault.h"

#include "base/errno_keeper.h"
#include "base/printing.h"
#include "memcheck/sink.h"
#include "pages/choice.h"
#include "pages/pool.h"
#include "platform/other_stack.h"
#include "platform/signal_context.h"
#include "platform/threads.h"
#include "wrappers/notice.h"
#include "wrappers/words.h"

#include <algorithm>
#include <stdio.h>
#include <stdio_ext.h>

namespace k42mc::internal {
namespace {

struct Access {
    uintptr_t address;
    bool is_write;
    PageBlock &block;
    uint32_t thread;
    std::span<void *const> trace;
};

uint32_t own_number() {
    return static_cast<uint32_t>(platform::own_thread());
}

// One at a time, by its thread; others wait for the end, or until it goes on.
constinit std::atomic<uint64_t> teller = 0;

// What a forked child has inherited is of no thread of its own. A child of vfork waits for its parent's threads.
bool is_gone(uint64_t thread) {
    return platform::has_ended(thread) ||
           (!platform::is_of_this_process(thread) && !platform::borrows_memory());
}

class Turn {
public:
    Turn() {
        const uint64_t self = platform::own_thread();
        uint64_t holder = 0;
        while (!teller.compare_exchange_weak(holder, self, std::memory_order_acquire)) {
            if (holder == self)
                return;
            if (holder == 0 || is_gone(holder))
                continue;
            platform::sleep_briefly();
            holder = 0;
        }
        is_ours_ = true;
    }
    ~Turn() { end(); }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    void end() {
        if (is_ours_)
            teller.store(0, std::memory_order_release);
        is_ours_ = false;
    }

    // False for a fault in the midst of telling of another.
    explicit operator bool() const { return is_ours_; }

private:
    bool is_ours_ = false;
};

const char *code_of(const Access &access) {
    static constexpr const char *codes[2][3] = {{"RO", "RU", "RF"}, {"WO", "WU", "WF"}};
    const int kind = access.block.is_released() ? 2 : access.address < access.block.address ? 1 : 0;
    return codes[access.is_write ? 1 : 0][kind];
}

void print_line(const Access &access) {
    const PageBlock &block = access.block;
    GuardTrace allocation{};
    for (size_t i = 0; i < std::min<size_t>(allocation.size(), block.allocation.frame_count); ++i)
        allocation[i] = reinterpret_cast<uintptr_t>(block.allocation.frames[i]);
    print_bad_access({code_of(access), block.arena, block.user(), block.size,
                      static_cast<ptrdiff_t>(access.address - block.address), allocation});
}

// What the process has buffered comes first, unless somebody is at it, which may be what has faulted.
void flush_standard_output() {
    if (__fpending(stdout) == 0 || !platform::hold_if_idle(stdout))
        return;
    fflush_unlocked(stdout);
    funlockfile(stdout);
}

void put_deed(TextOutput &out, const char *deed, uint32_t thread, std::span<void *const> trace) {
    char title[100];
    snprintf(title, sizeof title, "Backtrace of the %s by thread %u:\n", deed, thread);
    put_trace(out, title, trace);
}

void explain(const Access &access, bool goes_on) {
    const PageBlock &block = access.block;
    StopNotice notice;
    Words words(notice.words);
    words.add("a %s ", access.is_write ? "write" : "read");
    words.add_distance(access.address, block.address, block.size, block.is_released());
    words.add_site(block.site);
    const auto frames = block.allocation.trace();
    std::copy(frames.begin(), frames.end(), notice.frames);
    notice.frame_count = frames.size();
    notice.is_access = true;
    notice.access = access.trace;
    if (block.is_released())
        notice.release = block.release.trace();
    notice.goes_on = goes_on;
    auto put = [&](TextOutput &out) {
        put_deed(out, "access", access.thread, access.trace);
        put_deed(out, "allocation", block.allocation.thread, frames);
        if (block.is_released())
            put_deed(out, "release", block.release.thread, notice.release);
    };
    give_notice(notice, put);
}

void tell(const Access &access, bool goes_on) {
    const Printing printing;
    flush_standard_output();
    print_line(access);
    explain(access, goes_on);
}

bool goes_on() {
    return (page_choice.flags.load(std::memory_order_relaxed) & K42MCX_PAGES_GO_ON) != 0;
}

// A handler's stack may be too small for it. That of whose turn it is is nobody else's.
void tell_on_own_stack(const Access &access) {
    alignas(16) static constinit std::byte stack[64 << 10] = {};
    const auto tell_of = [](void *given) { tell(*static_cast<const Access *>(given), goes_on()); };
    platform::call_on(stack, tell_of, const_cast<Access *>(&access));
}

// Nobody else gets a turn, but where the memory goes on without this process.
[[noreturn]] void stop(Turn &turn) {
    if (platform::borrows_memory())
        turn.end();
    stop_here();
}

// Stops the process unless it is to go on: then each block is told of once.
void report(const Access &access, Turn &turn) {
    if (!access.block.is_told.exchange(true) || !goes_on())
        tell_on_own_stack(access);
    if (!goes_on())
        stop(turn);
}

// 0 where each byte can be touched, or the buffer begins elsewhere.
uintptr_t first_barred(uintptr_t begin, size_t size) {
    for (uintptr_t at = begin; in_page_range(at) && at - begin < size;
         at = (at & -smallest_page) + smallest_page)
        if (!platform::readable(reinterpret_cast<void *>(at), 1)) // NOLINT(performance-no-int-to-ptr)
            return at;
    return 0;
}

// A handler might not come back.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

private:
    sigset_t former_;
};

} // namespace

bool tell_page_fault(const siginfo_t &info, const void *context) {
    const auto address = reinterpret_cast<uintptr_t>(info.si_addr);
    PageBlock *const block = in_page_range(address) ? block_near(address) : nullptr;
    if (block == nullptr)
        return false;
    Turn turn;
    if (!turn)
        return false;
    void *frames[StackTrace::deepest];
    const int count = platform::backtrace_of_interrupted(context, frames, StackTrace::deepest);
    report({address, platform::was_write(context), *block, own_number(),
            std::span(frames, static_cast<size_t>(count))},
           turn);
    if (open_bar(address))
        return true;
    stop(turn);
}

void tell_refused_buffer(const void *buffer, size_t size, bool is_write) {
    const ErrnoKeeper keep_errno;
    const uintptr_t address = first_barred(reinterpret_cast<uintptr_t>(buffer), size);
    PageBlock *const block = address != 0 ? block_near(address) : nullptr;
    if (block == nullptr)
        return;
    const SignalsHeld signals_held;
    Turn turn;
    if (!turn)
        return;
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    report({address, is_write, *block, own_number(), trace.innermost(StackTrace::deepest)}, turn);
}

} // namespace k42mc::internal
