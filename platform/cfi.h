// The program of call-frame information that leads to the rules in force at one instruction.
#pragma once

#include "platform/frame_info.h"
#include "platform/registers.h"

namespace k42mc::internal::platform {

// Where a register's value in the caller is to be found.
struct RegisterRule {
    enum class How : uint8_t {
        same,
        undefined,
        at_offset,     // saved at the frame address plus value
        is_offset,     // the frame address plus value
        at_expression, // saved where the expression at the address `value` says
        is_expression, // what that expression says
        in_register,   // what is in the register of that number
    };
    How how;
    intptr_t value;
};

// The frame address is the caller's stack pointer, before the call.
struct FrameRules {
    bool address_by_expression; // which is at the address below
    intptr_t address_expression;
    int address_register;
    intptr_t address_offset;
    RegisterRule registers[Registers::count];
};

// Returns false for a program that is damaged or does what compilers do not write.
bool rules_at(const FrameInfo &info, uintptr_t pc, FrameRules &rules);

} // namespace k42mc::internal::platform
