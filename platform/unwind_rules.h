// What a return address implies for its frame, worked out once. That never changes while the code is
// loaded, and nearly always fits into a word: the frame's address lies at a fixed distance from the
// stack pointer or the frame pointer, the return address below it, and the caller's frame pointer, if it
// was saved, at a fixed distance again.
#pragma once

#include "platform/registers.h"
#include "platform/unloadable_modules.h"

#include <atomic>

namespace k42mc::internal::platform {

// The frame address (CFA), as everywhere here, is the caller's stack pointer.
struct UnwindRule {
    enum Kind : uint32_t {
        none,
        from_stack_pointer, // plus the distance
        from_frame_pointer,
        at_frame_pointer, // in memory at the distance, where a function has aligned its stack
        outermost,        // nobody called
        unusual,          // or nothing known: a matter for the full walk
    };

    int32_t distance; // in bytes, ready for use: the next frame waits for it
    // The kind in 3 bits, whether the frame pointer was saved in 1, where, in words, in 12.
    int16_t bits;
    uint16_t module; // for as long as that is in its place

    static constexpr int most_distance = 0x7fffff, most_save = 0x7ff;

    static UnwindRule of(Kind kind, intptr_t distance = 0) {
        return {static_cast<int32_t>(distance), static_cast<int16_t>(kind), unknown_module};
    }
    UnwindRule saving_at(int save) const {
        return {distance, static_cast<int16_t>(bits | 8 | save * 16), module};
    }

    Kind kind() const { return static_cast<Kind>(bits & 7); }
    bool saves_frame_pointer() const { return bits & 8; }
    // From the frame address, or from the frame pointer where that leads to the frame address.
    intptr_t save() const { return (bits >> 4) * word; }
};

// Slots are filled once and never change, so that reading takes no lock: the rule is there before its
// address is. Modules that took one another's place have slots side by side.
struct alignas(16) UnwindRuleSlot {
    static constexpr uintptr_t claimed = 1; // in place of the address: the rule is being written

    std::atomic<uintptr_t> address;
    UnwindRule rule;
};

// 32,768 call sites; past 16 probes a miss costs less than the search.
inline constexpr int rule_slot_bits = 15;
inline constexpr int most_probes = 16;
extern constinit UnwindRuleSlot gUnwindRules[(1 << rule_slot_bits) + most_probes];

[[gnu::always_inline]] inline uintptr_t first_slot(uintptr_t address) {
    // Every walk waits for this, too: no multiplication. Calls that are near each other fall apart by
    // the low bits.
    return (address ^ address >> rule_slot_bits) & ((uintptr_t{1} << rule_slot_bits) - 1);
}

// Works the rule out, and keeps it if the module is known.
UnwindRule learn_rule(uintptr_t return_address);

[[gnu::always_inline]] inline UnwindRule rule_of(uintptr_t return_address, ModuleCheck &check) {
    const UnwindRuleSlot *slot = &gUnwindRules[first_slot(return_address)];
    for (int probe = 0; probe < most_probes; ++probe, ++slot) {
        const uintptr_t address = slot->address.load(std::memory_order_acquire);
        if (address == return_address && check.passes(slot->rule.module)) [[likely]]
            return slot->rule;
        if (address == 0)
            break;
    }
    return learn_rule(return_address);
}

} // namespace k42mc::internal::platform
