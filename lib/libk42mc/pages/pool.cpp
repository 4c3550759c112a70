#include "pages/pool.h"

#include "base/locks.h"
#include "platform/page_bars.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace k42mc::internal {

constinit PageRange page_range = {};

namespace {

constexpr uintptr_t page = smallest_page;

// Slots of one size, side by side. The first so many have been used, and so many more are ready for it.
struct SizeClass {
    uintptr_t begin = 0;
    uint32_t room = 0; // for so many slots
    uint32_t ready = 0;
    std::atomic<uint32_t> used = 0;
    uint32_t oldest = 0, newest = 0; // of those that were given back: numbers from 1
    PageBlock *blocks = nullptr;
};

constinit SizeClass classes[page_slot_sizes];
constinit std::span<std::byte> block_memory = {};

// Of live blocks.
constinit size_t open_bytes = 0, most_open_bytes = 0;
constinit size_t open_count = 0, most_open_count = 0;

constinit std::atomic<size_t> refused = 0, left_open = 0;

constinit pthread_mutex_t gMCPagesLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
constinit thread_local bool thread_is_at_pool = false; // it has the lock, or is about to

void take_lock() {
    lock_unnoted(gMCPagesLock, LockRank::pages);
}

void let_lock_go() {
    unlock_unnoted(gMCPagesLock);
}

// Held for moments. A signal handler that has interrupted its holder goes without.
class PoolLock {
public:
    PoolLock() : is_taken_(!std::exchange(thread_is_at_pool, true)) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (is_taken_)
            take_lock();
    }
    ~PoolLock() {
        if (!is_taken_)
            return;
        let_lock_go();
        std::atomic_signal_fence(std::memory_order_seq_cst);
        thread_is_at_pool = false;
    }
    PoolLock(const PoolLock &) = delete;
    PoolLock &operator=(const PoolLock &) = delete;

    explicit operator bool() const { return is_taken_; }

private:
    const bool is_taken_;
};

// ---- The layout ----

constexpr size_t pages_in(size_t index) {
    return size_t{1} << index;
}

constexpr size_t slot_bytes(size_t index) {
    return (pages_in(index) + 1) * page;
}

// Small blocks are many.
constexpr size_t sixteenths[page_slot_sizes] = {5, 3, 2, 1, 1, 1, 1, 1, 1};

constexpr size_t share(size_t range, size_t index) {
    return range / 16 * sixteenths[index] & -page;
}

// What is known of blocks, their entries in the registry's index and page tables come to less than half of the memory
// then, on 64 bits. On 32, addresses are what is scarce.
constexpr size_t addresses_for(size_t memory) {
    return (sizeof(void *) == 8 ? 8 * memory : memory) & -page;
}

constexpr size_t block_bytes(size_t range) {
    size_t count = 0;
    for (size_t i = 0; i < page_slot_sizes; ++i)
        count += share(range, i) / slot_bytes(i);
    return count * sizeof(PageBlock);
}

constexpr size_t overhead_of(size_t range) {
    constexpr size_t bytes_by_index_byte = K42MC_GUARD_OVERHEAD / sizeof(uint32_t);
    constexpr size_t bytes_by_page_table_byte = page / sizeof(uint64_t);
    return block_bytes(range) + range / bytes_by_index_byte + range / bytes_by_page_table_byte;
}
static_assert(overhead_of(addresses_for(size_t{1} << 28)) <= size_t{1} << 27);

bool map_blocks(size_t range) {
    const size_t size = (block_bytes(range) + page - 1) & -page;
    auto *const memory = static_cast<std::byte *>(platform::reserve_zeros(size));
    if (memory != nullptr)
        block_memory = {memory, size};
    return memory != nullptr;
}

void lay_out(uintptr_t begin, size_t range) {
    auto *blocks = reinterpret_cast<PageBlock *>(block_memory.data());
    for (size_t i = 0; i < page_slot_sizes; ++i) {
        SizeClass &size_class = classes[i];
        size_class.begin = begin;
        size_class.room = static_cast<uint32_t>(share(range, i) / slot_bytes(i));
        size_class.blocks = blocks;
        blocks += size_class.room;
        begin += share(range, i);
    }
}

// One page ahead of the first slot.
bool reserve(size_t range) {
    if (!map_blocks(range))
        return false;
    const uintptr_t begin = platform::reserve_addresses(range + page);
    if (begin == 0) {
        platform::unmap_memory(block_memory.data(), block_memory.size());
        block_memory = {};
        return false;
    }
    const bool cheap = platform::has_cheap_bars(begin, range + page);
    most_open_count =
        cheap ? SIZE_MAX : platform::most_mappings() / 4; // each has two mappings, or shares them
    lay_out(begin + page, range);
    page_range.begin = begin;
    page_range.size = range + page;
    return true;
}

size_t index_at(uintptr_t address) {
    for (size_t i = page_slot_sizes; i-- > 0;)
        if (address >= classes[i].begin)
            return i;
    return 0; // ahead of the first slot
}

PageSlot slot_of(size_t index, uint32_t number) {
    const SizeClass &size_class = classes[index];
    const uintptr_t begin = size_class.begin + (number - 1) * slot_bytes(index);
    return {size_class.blocks + (number - 1), begin, begin + pages_in(index) * page};
}

// ---- Taking and giving back ----

// Some at a time, as that takes two system calls.
bool make_ready(size_t index) {
    constexpr size_t usual = 64 * page;
    SizeClass &size_class = classes[index];
    const size_t bytes = slot_bytes(index);
    const auto more = static_cast<uint32_t>(
        std::min(std::max(usual / bytes, size_t{1}), size_t{size_class.room - size_class.ready}));
    if (more == 0 ||
        !platform::open_zeros(size_class.blocks + size_class.ready, more * sizeof(PageBlock)) ||
        !platform::prepare_pages(size_class.begin + size_class.ready * bytes, more * bytes))
        return false;
    size_class.ready += more;
    return true;
}

// Returns 0 where there are none.
uint32_t take_number(size_t index) {
    SizeClass &size_class = classes[index];
    const uint32_t used = size_class.used.load(std::memory_order_relaxed);
    if (used < size_class.ready || make_ready(index)) {
        size_class.used.store(used + 1, std::memory_order_release);
        return used + 1;
    }
    const uint32_t number = size_class.oldest;
    if (number != 0)
        size_class.oldest = size_class.blocks[number - 1].next;
    return number;
}

void put_last(size_t index, uint32_t number) {
    SizeClass &size_class = classes[index];
    size_class.blocks[number - 1].next = 0;
    (size_class.oldest != 0 ? size_class.blocks[size_class.newest - 1].next : size_class.oldest) =
        number;
    size_class.newest = number;
}

// Of that size, or else of a larger one.
PageSlot find_slot(size_t pages) {
    const PoolLock lock;
    const size_t bytes = pages * page;
    if (!lock || open_count >= most_open_count || bytes > most_open_bytes - open_bytes)
        return {};
    for (auto i = static_cast<size_t>(std::bit_width(pages - 1)); i < page_slot_sizes; ++i) {
        if (const uint32_t number = take_number(i)) {
            open_bytes += bytes;
            ++open_count;
            return slot_of(i, number);
        }
    }
    return {};
}

bool bar(const PageSlot &slot) {
    PageBlock &block = *slot.block;
    return block.has_open_bars.exchange(false)
               ? platform::bar_pages(slot.begin, slot.end + page - slot.begin)
               : platform::bar_pages(block.open_begin, block.open_end - block.open_begin);
}

// The process may have limited its addresses.
size_t addresses_to_take(size_t memory) {
    return std::min(addresses_for(memory), platform::most_addresses() / 8 & -page);
}

} // namespace

bool reserve_pages(size_t memory) {
    constexpr size_t least = 1 << 22;
    const PoolLock lock;
    if (!lock)
        return false;
    for (size_t range = addresses_to_take(memory); page_range.size == 0 && range >= least; range /= 2)
        if (reserve(range))
            most_open_bytes = memory / 2;
    return page_range.size != 0;
}

PageSlot take_slot(size_t pages) {
    const PageSlot slot = find_slot(pages);
    const bool is_barred =
        slot.block != nullptr && (!slot.block->has_open_bars || bar(slot)); // from before its first use
    if (!is_barred)
        count_block_without_pages();
    return is_barred ? slot : PageSlot{};
}

// A slot whose pages stay open still has what was in them, and is not used again. A handler that goes without the lock
// leaves the slot barred for good.
void give_back(const PageSlot &slot) {
    if (!bar(slot)) {
        ++left_open;
        return;
    }
    const PoolLock lock;
    if (!lock)
        return;
    const size_t index = index_at(slot.begin);
    put_last(index, static_cast<uint32_t>(slot.block - classes[index].blocks) + 1);
    open_bytes -= slot.block->open_end - slot.block->open_begin;
    --open_count;
}

PageSlot slot_at(uintptr_t address) {
    const size_t index = index_at(address);
    const SizeClass &size_class = classes[index];
    const size_t number = (address - size_class.begin) / slot_bytes(index);
    return address >= size_class.begin && number < size_class.room
               ? slot_of(index, static_cast<uint32_t>(number) + 1)
               : PageSlot{};
}

namespace {

uintptr_t distance(const PageBlock &block, uintptr_t address) {
    if (address < block.address)
        return block.address - address;
    return address - block.address < block.size ? 0 : address - block.address - block.size + 1;
}

// Whether there is one, that is nearer than the best so far.
void prefer_nearer(const PageSlot &slot, uintptr_t address, PageBlock *&best) {
    if (slot.block == nullptr || slot.block->state == PageBlock::State::none)
        return;
    if (best == nullptr || distance(*slot.block, address) < distance(*best, address))
        best = slot.block;
}

} // namespace

// Of its slot or one of the slots beside it.
PageBlock *block_near(uintptr_t address) {
    PageBlock *best = nullptr;
    const PageSlot slot = slot_at(address);
    const uintptr_t begin = slot.block != nullptr ? slot.begin : (address & -page) + page;
    prefer_nearer(slot, address, best);
    if (in_page_range(begin - page))
        prefer_nearer(slot_at(begin - page), address, best);
    const uintptr_t behind = slot.block != nullptr ? slot.end + page : begin;
    if (in_page_range(behind))
        prefer_nearer(slot_at(behind), address, best);
    return best;
}

size_t blocks_without_pages() {
    return refused;
}

void count_block_without_pages() {
    ++refused;
}

size_t blocks_left_open() {
    return left_open;
}

// Of a slot that may not be ready, or of none.
bool open_bar(uintptr_t address) {
    PageBlock *const block = slot_at(address).block;
    if (block != nullptr) {
        if (!platform::open_zeros(block, sizeof *block))
            return false;
        block->has_open_bars = true;
    }
    return platform::prepare_pages(address & -page, page) && platform::open_pages(address & -page, page);
}

std::span<const std::byte> memory_of_page_blocks() {
    return block_memory;
}

uint32_t page_slots_used(size_t index) {
    return classes[index].used.load(std::memory_order_acquire);
}

PageBlock *page_blocks_of(size_t index) {
    return classes[index].blocks;
}

// A handler that forks may have interrupted the lock's holder: that goes on in both processes.
void hold_page_pool() {
    if (!thread_is_at_pool)
        take_lock();
}

void release_page_pool() {
    if (!thread_is_at_pool)
        let_lock_go();
}

void renew_page_pool() {
    if (!thread_is_at_pool)
        gMCPagesLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
}

} // namespace k42mc::internal
