#include "pages/block.h"

#include "pages/choice.h"
#include "platform/page_bars.h"
#include "platform/threads.h"
#include "platform/unsanitized.h"

#include <algorithm>
#include <bit>

namespace k42mc::internal {
namespace {

constexpr uintptr_t page = smallest_page;
constexpr size_t default_alignment = 2 * sizeof(void *);
constexpr unsigned char filling = 0xb5; // as in the tails of other blocks

unsigned char *bytes_at(uintptr_t address) {
    return reinterpret_cast<unsigned char *>(address); // NOLINT(performance-no-int-to-ptr)
}

// Code counts on no more for a block that is smaller.
size_t alignment_of(size_t size, size_t wanted, bool is_exact) {
    if (wanted > 1 || is_exact)
        return wanted;
    return std::min(default_alignment, std::bit_floor(std::max(size, size_t{1})));
}

bool begins_at_start(uint32_t flags) {
    return (flags & K42MCX_PAGES_START) != 0 ||
           ((flags & K42MCX_PAGES_MIXED) != 0 && is_turn_of_start());
}

void place(const PageSlot &slot, size_t size, size_t alignment) {
    const uint32_t flags = page_choice.flags.load(std::memory_order_relaxed);
    const uintptr_t open_bytes = (std::max(size, size_t{1}) + page - 1) & -page;
    PageBlock &block = *slot.block;
    if (begins_at_start(flags)) {
        block.open_begin = block.address = slot.begin;
        block.open_end = slot.begin + open_bytes;
    } else {
        const bool is_exact = (flags & K42MCX_PAGES_EXACT) != 0;
        block.open_begin = slot.end - open_bytes;
        block.open_end = slot.end;
        block.address = (slot.end - size) & -alignment_of(size, alignment, is_exact);
    }
    block.size = size;
}

void note(Deed &deed, const StackTrace &trace) {
    const std::span<void *const> frames = trace.innermost(StackTrace::deepest);
    deed.thread = static_cast<uint32_t>(platform::own_thread());
    deed.frame_count = static_cast<uint32_t>(frames.size());
    std::copy(frames.begin(), frames.end(), deed.frames);
}

K42MC_UNSANITIZED bool is_filled(uintptr_t begin, uintptr_t end) {
    unsigned char difference = 0;
    for (uintptr_t at = begin; at < end; ++at)
        difference = static_cast<unsigned char>(difference | (*bytes_at(at) ^ filling));
    return difference == 0;
}

} // namespace

bool fits_in_pages(size_t size, size_t alignment) {
    return size <= largest_page_block && alignment <= page;
}

PageBlock *make_page_block(Site site, uint32_t arena, size_t size, size_t alignment,
                           const StackTrace &trace) {
    const PageSlot slot = take_slot((std::max(size, size_t{1}) + page - 1) / page);
    if (slot.block == nullptr)
        return nullptr;
    PageBlock *const block = slot.block;
    place(slot, size, alignment);
    if (!platform::open_pages(block->open_begin, block->open_end - block->open_begin)) {
        give_back(slot);
        count_block_without_pages();
        return nullptr;
    }
    block->site = site;
    block->arena = arena;
    note(block->allocation, trace);
    block->release = {};
    block->is_told.store(false, std::memory_order_relaxed);
    std::fill(bytes_at(block->open_begin), bytes_at(block->address), filling);
    std::fill(bytes_at(block->address + size), bytes_at(block->open_end), filling);
    block->state.store(PageBlock::State::live, std::memory_order_release);
    return block;
}

PageBlock *page_block_at(const void *user) {
    const auto address = reinterpret_cast<uintptr_t>(user);
    PageBlock *const block = slot_at(address).block;
    const bool is_one = block != nullptr && block->address == address &&
                        block->state.load(std::memory_order_acquire) != PageBlock::State::none;
    return is_one ? block : nullptr;
}

int page_block_defect(const PageBlock &block) {
    if (!is_filled(block.open_begin, block.address))
        return K42MC_DEFECT_WU;
    if (!is_filled(block.address + block.size, block.open_end))
        return K42MC_DEFECT_WO;
    return K42MC_DEFECT_NONE;
}

bool claim_release(PageBlock &block) {
    auto live = PageBlock::State::live;
    return block.state.compare_exchange_strong(live, PageBlock::State::released,
                                               std::memory_order_acq_rel);
}

void take_claim_back(PageBlock &block) {
    block.state.store(PageBlock::State::live, std::memory_order_release);
}

void end_page_block(PageBlock &block, const StackTrace &trace) {
    note(block.release, trace);
    give_back(slot_at(block.address));
}

} // namespace k42mc::internal
