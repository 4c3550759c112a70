// A module that the loader has mapped, and what its symbol tables name.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

namespace k42mc::internal::platform {

struct Module {
    uintptr_t begin, end; // its mapping; the ELF header comes first
    uintptr_t base;       // what to add to the addresses in its file
    uintptr_t dynamic;    // its dynamic section
};

// Finds the module that is mapped at an address, without the loader's lock, which may be held by a thread
// that waits for one of this library's. The path is where the loader has it.
bool find_module(uintptr_t address, Module &module, uintptr_t &path);

// Whether one of its segments is at an address: there may be gaps between them.
bool has_segment_at(const Module &module, uintptr_t address);

// Whether a module defines a symbol of a name for others.
bool defines(const Module &module, const char *name);

// Finds the function or variable that covers the address and puts its name, cut to the room there is, without a
// terminator. The file is searched if it is the one that was loaded (a descriptor; -1 for none), then
// the symbols that are in memory. Returns the length of the name, 0 if there is none.
enum class Named { function, variable };
size_t find_named(Named kind, const Module &module, int file, uintptr_t address, std::span<char> name,
                  uintptr_t &begin);

} // namespace k42mc::internal::platform
