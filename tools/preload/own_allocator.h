// Programs that are left alone: with an allocator that cannot do with blocks that have guards in front, or with
// functions of the names that the shim's own go by.
#pragma once

#include <atomic>

enum class Treatment : int { undecided, guarded, left_alone };
extern std::atomic<Treatment> treatment;

Treatment decide_treatment();

// Decided once, ahead of the first block.
inline bool program_is_left_alone() {
    const Treatment decided = treatment.load(std::memory_order_relaxed);
    return (decided != Treatment::undecided ? decided : decide_treatment()) == Treatment::left_alone;
}

// For a program that is left alone.
const char *why_left_alone();
