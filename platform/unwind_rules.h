// What a return address implies for its frame, worked out once. That never changes while the code is
// loaded, and nearly always fits into a word: the frame's address lies at a fixed distance from the
// stack pointer or the frame pointer, the return address below it, and the caller's frame pointer, if it
// was saved, at a fixed distance again.
#pragma once

#include "passing_modules.h"
#include "registers.h"

#include <atomic>

namespace k42mc::platform {

// The frame address, as everywhere here, is the caller's stack pointer.
struct UnwindRule {
    enum Kind : uint32_t {
        none,
        from_stack_pointer, // plus the distance
        from_frame_pointer,
        at_frame_pointer, // in memory at the distance, where a function has aligned its stack
        outermost,        // nobody called
        unusual,          // or nothing known: a matter for the full walk
    };

    // In words: kind 3 bits, whether the frame pointer was saved 1, where 12, the distance 16.
    uint32_t bits;
    uint32_t module; // for as long as that is in its place

    static constexpr int most_distance = 0x7fff, most_save = 0x7ff;

    static UnwindRule of(Kind kind) { return {kind, unknown_module}; }
    static UnwindRule of(Kind kind, int distance) {
        return {kind | static_cast<uint32_t>(distance) << 16, unknown_module};
    }
    UnwindRule saving_at(int save) const {
        return {bits | 8u | (static_cast<uint32_t>(save) & 0xfffu) << 4, module};
    }

    Kind kind() const { return static_cast<Kind>(bits & 7u); }
    intptr_t distance() const { return (static_cast<int32_t>(bits) >> 16) * word; }
    bool saves_frame_pointer() const { return bits & 8u; }
    // From the frame address, or from the frame pointer where that leads to the frame address.
    intptr_t save() const { return (static_cast<int32_t>(bits << 16) >> 20) * word; }
};

// Slots are filled once and never change, so that reading takes no lock: the rule is there before its
// address is. Modules that took one another's place have slots side by side.
struct UnwindRuleSlot {
    std::atomic<uintptr_t> address;
    std::atomic<uint32_t> rule, module;
};

// 32,768 call sites; past 16 probes a miss costs less than the search.
inline constexpr int rule_slot_bits = 15;
inline constexpr int most_probes = 16;
extern constinit UnwindRuleSlot gUnwindRules[(1 << rule_slot_bits) + most_probes];

[[gnu::always_inline]] inline uint32_t first_slot(uintptr_t address) {
    return static_cast<uint32_t>(static_cast<uint32_t>(address) * 0x9e3779b1u >> (32 - rule_slot_bits));
}

// Works the rule out, and keeps it if the module is known.
UnwindRule learn_rule(uintptr_t return_address);

[[gnu::always_inline]] inline UnwindRule rule_of(uintptr_t return_address, ModuleCheck &check) {
    const UnwindRuleSlot *slot = &gUnwindRules[first_slot(return_address)];
    for (int probe = 0; probe < most_probes; ++probe, ++slot) {
        const uintptr_t address = slot->address.load(std::memory_order_acquire);
        const uint32_t module = slot->module.load(std::memory_order_relaxed);
        if (address == return_address && check.passes(module)) [[likely]]
            return {slot->rule.load(std::memory_order_relaxed), module};
        if (address == 0)
            break;
    }
    return learn_rule(return_address);
}

} // namespace k42mc::platform
