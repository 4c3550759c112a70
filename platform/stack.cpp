// The frames of a thread lie below its control block, which the C library puts at the top of the thread's
// stack; those of the first thread below what the program was started with. Where a thread's stack begins
// has to be known, too: below a stack without a guard page may lie anything, another stack that the
// process switches to by hand as well, and that may go away while the thread lives. The system itself
// keeps other mappings away from the first thread's stack.
//
// How much of a stack is in use is seen from its pages, all of which can be read then: whatever the
// process protects within it is not in use.
#include "platform/stack.h"

#include "platform/bytes.h"
#include "platform/platform.h"

#include <atomic>

#include <pthread.h>
#include <string.h>
#include <unistd.h>

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

// ---- What the C library knows ----

// The memory that a thread's stack was given, as its control block has it. The C library tells that to
// nobody without an allocation, which a signal handler must not make.
struct Block {
    uintptr_t begin, size;

    bool holds(uintptr_t address, uintptr_t control_block) const {
        return size != 0 && address >= begin && address < control_block;
    }

    // The control block lies at the end, and nothing behind it but what aligns it. No other two words of
    // the control block add up to that: small numbers and addresses of its own do, but for the limits.
    bool ends_behind(uintptr_t control_block) const {
        constexpr uintptr_t most_behind = 8192;
        const uintptr_t before = control_block - begin;
        return begin < control_block && size > before && size - before <= most_behind &&
               size > most_behind && size < begin;
    }
};

// Where that is in a control block, the same for all; 0 until found.
constinit std::atomic<uintptr_t> gBlockOffset = 0;

uintptr_t find_block_offset(uintptr_t control_block) {
    const uintptr_t page = page_size();
    uintptr_t end = (control_block | (page - 1)) + 1;
    if (readable(reinterpret_cast<const void *>(end), page))
        end += page;
    for (uintptr_t at = control_block; at + sizeof(Block) <= end; at += sizeof(uintptr_t))
        if (reinterpret_cast<const Block *>(at)->ends_behind(control_block))
            return at - control_block;
    return 0;
}

// Of size 0 for the first thread.
Block own_block(uintptr_t control_block) {
    uintptr_t offset = gBlockOffset.load(std::memory_order_relaxed);
    if (offset == 0 && !single_threaded())
        gBlockOffset.store(offset = find_block_offset(control_block), std::memory_order_relaxed);
    const Block block = *reinterpret_cast<const Block *>(control_block + offset);
    return offset != 0 && block.ends_behind(control_block) ? block : Block{0, 0};
}

// Where a control block has the thread's number, ahead of the stack's memory, the same for all; 0 until found.
constinit std::atomic<uintptr_t> gNumberOffset = 0;

uintptr_t number_offset() {
    const uintptr_t known = gNumberOffset.load(std::memory_order_relaxed);
    if (known != 0)
        return known;
    const auto control_block = static_cast<uintptr_t>(pthread_self());
    const auto number = static_cast<uint32_t>(gettid());
    for (uintptr_t offset = sizeof number; offset < gBlockOffset; offset += sizeof number)
        if (*reinterpret_cast<const uint32_t *>(control_block + offset) == number) {
            gNumberOffset.store(offset, std::memory_order_relaxed);
            return offset;
        }
    return 0;
}

// ---- What is known of the thread ----

// Where the thread's stack ends, or 0 if the stack pointer is on another one.
uintptr_t end_of_own_stack(uintptr_t stack_pointer) {
    const auto control_block = static_cast<uintptr_t>(pthread_self());
    const Block block = own_block(control_block);
    const uintptr_t end =
        block.size != 0 ? control_block : reinterpret_cast<uintptr_t>(__libc_stack_end);
    return stack_pointer >= block.begin && stack_pointer < end ? end : 0;
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
    const uintptr_t page = page_size(), low = stack_pointer & -page,
                    end = end_of_own_stack(stack_pointer);
    const Stack own = own_stack;
    const uintptr_t known = own.high == end && own.low > low ? own.low : end;
    if (end != 0 && known - low <= deepest_start &&
        readable(reinterpret_cast<const void *>(low), known - low)) {
        remember({low, end});
        return own_stack;
    }
    uintptr_t high = low;
    for (uintptr_t pages = 0; pages < foreign_pages; ++pages, high += page)
        if (!readable(reinterpret_cast<const void *>(high), page))
            break;
    return {low, high};
}

uintptr_t thread_local_bytes() {
    const auto control_block = static_cast<uintptr_t>(pthread_self());
    const auto own = reinterpret_cast<uintptr_t>(&own_stack),
               libcs = reinterpret_cast<uintptr_t>(&errno);
    return control_block - std::min(own, libcs);
}

// The first thread's stack grows as long as it is used, and one of the process's own making nobody knows.
bool has_stack_room(size_t bytes) {
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const auto control_block = static_cast<uintptr_t>(pthread_self());
    const Block block = own_block(control_block);
    return !block.holds(here, control_block) ||
           (here - block.begin > bytes && readable(reinterpret_cast<const void *>(here - bytes), bytes));
}

namespace {

constexpr size_t cleared_bytes = 8192;

[[gnu::noinline]] void clear_below() {
    char unused[cleared_bytes];
    memset(unused, 0, sizeof unused);
    __asm__ volatile("" : : "r"(unused) : "memory");
}

} // namespace

void clear_unused_stack() {
    if (has_stack_room(2 * cleared_bytes))
        clear_below();
}

bool is_on_own_stack(uintptr_t address) {
    const auto control_block = static_cast<uintptr_t>(pthread_self());
    const Block block = own_block(control_block);
    return block.size != 0 ? block.holds(address, control_block) : is_on_first_stack(address);
}

// It ends behind what the program was started with, its arguments and environment.
bool is_on_first_stack(uintptr_t address) {
    constexpr uintptr_t most_arguments = 6u << 20;
    const auto start = reinterpret_cast<uintptr_t>(__libc_stack_end);
    if (address < start)
        return start - address <= deepest_start &&
               readable(reinterpret_cast<const void *>(address), start - address);
    return address - start <= most_arguments && readable(__libc_stack_end, address - start + 1);
}

StackMemory stack_memory_of(uintptr_t control_block) {
    uintptr_t offset = gBlockOffset.load(std::memory_order_relaxed);
    if (offset == 0 && !single_threaded())
        gBlockOffset.store(offset = find_block_offset(control_block), std::memory_order_relaxed);
    Block block;
    return offset != 0 && fetch(own_memory, control_block + offset, block) &&
                   block.ends_behind(control_block)
               ? StackMemory{block.begin, block.begin + block.size}
               : StackMemory{0, 0};
}

bool know_control_blocks(uintptr_t control_block) {
    return stack_memory_of(control_block).end != 0 && number_offset() != 0;
}

StackMemory kept_stack_of(uintptr_t control_block) {
    const StackMemory stack = stack_memory_of(control_block);
    const uintptr_t offset = number_offset();
    int32_t number; // 0 once it has ended, below that once somebody was told
    return stack.end != 0 && offset != 0 && fetch(own_memory, control_block + offset, number) &&
                   number <= 0
               ? StackMemory{stack.begin, control_block}
               : StackMemory{0, 0};
}

// A thread's number is in its control block, and the system takes it away when the thread ends, ahead of all
// who wait for that. So a stack is not taken for one in use where it has already become something else.
bool is_on_stack_of(pthread_t thread, uint32_t number, uintptr_t address) {
    const auto control_block = static_cast<uintptr_t>(thread);
    const uintptr_t block_offset = gBlockOffset.load(std::memory_order_relaxed);
    const uintptr_t offset = number_offset();
    Block block;
    uint32_t current;
    return offset != 0 && fetch(own_memory, control_block + block_offset, block) &&
           block.ends_behind(control_block) && block.holds(address, control_block) &&
           fetch(own_memory, control_block + offset, current) && current == number;
}

} // namespace k42mc::internal::platform
