// Slots for blocks that have pages of their own: pages that can be opened, each slot's followed by one that cannot. A
// slot that is given back stays barred until all slots of its size that were given back before have been used again.
#pragma once

#include "base/site.h"
#include "k42mc_debug.h"

#include <atomic>

namespace k42mc::internal {

// The largest block: of 256 pages.
inline constexpr size_t largest_page_block = 256 * smallest_page;

// Who did something, and from where.
struct Deed {
    uint32_t thread; // as the system numbers it
    uint32_t frame_count;
    void *frames[StackTrace::deepest];

    std::span<void *const> trace() const { return {frames, frame_count}; }
};

// What is known of the block that a slot holds, or held last. Memory of zeros is a slot that has not held any. It is
// read without a lock, by signal handlers, too.
struct PageBlock {
    enum class State : uint32_t { none, live, released };

    std::atomic<State> state;
    std::atomic<bool> is_told;       // that somebody touched what is barred
    std::atomic<bool> has_open_bars; // so that who touched it could go on
    uintptr_t address;               // the user pointer
    size_t size;
    Site site;
    uint32_t arena;
    uintptr_t open_begin, open_end; // of its pages
    Deed allocation, release;
    uint32_t next; // of the slots that were given back; numbers begin with 1

    void *user() const { return reinterpret_cast<void *>(address); } // NOLINT(performance-no-int-to-ptr)
    bool is_live() const { return state.load(std::memory_order_acquire) == State::live; }
    bool is_released() const { return state.load(std::memory_order_acquire) == State::released; }
};

// Where slots are: nowhere, as long as nobody wants any. Never changes from then on.
struct PageRange {
    std::atomic<uintptr_t> begin;
    std::atomic<size_t> size;
};
extern constinit PageRange page_range;

inline bool in_page_range(uintptr_t address) {
    return address - page_range.begin.load(std::memory_order_relaxed) <
           page_range.size.load(std::memory_order_relaxed);
}
inline bool in_page_range(const void *pointer) {
    return in_page_range(reinterpret_cast<uintptr_t>(pointer));
}

// Takes addresses, once. All that becomes of them takes so much memory at most, page tables counted. Returns whether
// there are any.
bool reserve_pages(size_t memory);

struct PageSlot {
    PageBlock *block = nullptr; // null for no slot
    uintptr_t begin = 0, end = 0;
};

// With all pages barred.
PageSlot take_slot(size_t pages);

// Bars what is open of it. The block's state has to say that it is released.
void give_back(const PageSlot &slot);

// That an address of the range lies in, with the page behind it; of no block where none will ever be.
PageSlot slot_at(uintptr_t address);

// The block that an address of the range lies in, or is nearest to; null where there has been none. Waits for nobody.
PageBlock *block_near(uintptr_t address);

// Blocks that were guarded as others are, since no pages were to be had.
size_t blocks_without_pages();
void count_block_without_pages();

// Released blocks whose pages the system did not bar.
size_t blocks_left_open();

// Opens one page. False where the system does not.
bool open_bar(uintptr_t address);

// The memory of what is known of blocks.
std::span<const std::byte> memory_of_page_blocks();

// Calls action with each block that is live. What begins or ends meanwhile may be left out.
template <class Action> void for_each_page_block(Action action);

// Around a fork.
void hold_page_pool();
void release_page_pool();
void renew_page_pool();

// ---- For the template ----

uint32_t page_slots_used(size_t index);
PageBlock *page_blocks_of(size_t index);
inline constexpr size_t page_slot_sizes = 9; // 1, 2, 4 ... 256 pages

template <class Action> void for_each_page_block(Action action) {
    for (size_t index = 0; index < page_slot_sizes; ++index)
        for (PageBlock &block : std::span(page_blocks_of(index), page_slots_used(index)))
            if (block.is_live())
                action(block);
}

} // namespace k42mc::internal
