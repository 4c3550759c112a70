// Where a module says how the frames of its functions are left.
#pragma once

#include <stdint.h>

#include <link.h>

namespace k42mc::internal::platform {

// A frame description entry and the common information entry that it refers to.
struct FrameInfo {
    uintptr_t module_end; // nothing of it lies behind

    uintptr_t common_program, common_program_end; // what holds at the function's begin
    uintptr_t program, program_end;               // what changes within it
    uintptr_t function;
    uintptr_t code_factor;
    intptr_t data_factor;
    uintptr_t return_column;
    uint8_t pointer_encoding;
    bool is_signal_frame; // its caller was interrupted, not called from
};

// What the loader tells of a module, without a lock, and the table of its entries that the linker has
// made, sorted by address.
struct FrameTable {
    uintptr_t module_begin, module_end;
    const link_map *module;
    uintptr_t address;
};

// Both return false where nothing is known.
bool find_frame_table(uintptr_t pc, FrameTable &table);
bool find_frame_entry(const FrameTable &table, uintptr_t pc, uint32_t &index);

// What an entry says. Returns false if it says nothing about pc, or what compilers do not write.
bool read_frame_info(const FrameTable &table, uint32_t index, uintptr_t pc, FrameInfo &info);

// All in one.
bool find_frame_info(uintptr_t pc, FrameInfo &info);

} // namespace k42mc::internal::platform
