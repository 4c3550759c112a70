// Where a module says how the frames of its functions are left.
#pragma once

#include <stdint.h>

#include <link.h>

namespace k42mc::platform {

// A frame description entry and the common information entry that it refers to.
struct FrameInfo {
    uintptr_t module_end; // nothing of it lies behind
    const link_map *module;

    uintptr_t common_program, common_program_end; // what holds at the function's begin
    uintptr_t program, program_end;               // what changes within it
    uintptr_t function;
    uintptr_t code_factor;
    intptr_t data_factor;
    uintptr_t return_column;
    uint8_t pointer_encoding;
    bool is_signal_frame; // its caller was interrupted, not called from
};

// Finds the entry of the function with the instruction at pc. Waits for nobody. Returns false when no
// module has one.
bool find_frame_info(uintptr_t pc, FrameInfo &info);

} // namespace k42mc::platform
