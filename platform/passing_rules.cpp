#include "passing_rules.h"

#include <atomic>

namespace k42mc::platform {
namespace {

struct Remembered {
    uintptr_t address, table;
    uint64_t fingerprint;
    uint32_t index, rule;
};

// Written to by any thread, and in signal handlers: the number is odd meanwhile, and another afterwards.
// Who finds it so does without.
struct Slot {
    std::atomic<uint32_t> number;
    Remembered remembered;
};

constexpr int slot_bits = 11;
constinit Slot gSlots[1 << slot_bits] = {};

Slot &slot_for(uintptr_t address) {
    return gSlots[static_cast<uint32_t>(address) * 0x9e3779b1u >> (32 - slot_bits)];
}

bool read(const Slot &slot, Remembered &result) {
    const uint32_t before = slot.number.load(std::memory_order_acquire);
    result = slot.remembered;
    std::atomic_thread_fence(std::memory_order_acquire);
    return before % 2 == 0 && slot.number.load(std::memory_order_relaxed) == before;
}

} // namespace

bool recall_rule(const FrameTable &table, uintptr_t return_address, UnwindRule &rule) {
    Remembered found;
    if (!read(slot_for(return_address), found) || found.address != return_address ||
        found.table != table.address || !is_entry_for(table, found.index, return_address - 1) ||
        found.fingerprint != fingerprint(table, found.index))
        return false;
    rule = {found.rule, false};
    return true;
}

void remember_rule(const FrameTable &table, uint32_t index, uintptr_t return_address, UnwindRule rule) {
    Slot &slot = slot_for(return_address);
    uint32_t number = slot.number.load(std::memory_order_relaxed);
    if (number % 2 != 0 ||
        !slot.number.compare_exchange_strong(number, number + 1, std::memory_order_acquire))
        return;
    std::atomic_thread_fence(std::memory_order_release);
    slot.remembered = {return_address, table.address, fingerprint(table, index), index, rule.bits};
    slot.number.store(number + 2, std::memory_order_release);
}

} // namespace k42mc::platform
