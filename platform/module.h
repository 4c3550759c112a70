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

// What the loader says at once of the module that is mapped at an address, without its lock, which may be held by a
// thread that waits for one of this library's.
struct LoadedModule {
    uintptr_t begin, end, record; // its mapping, and where the loader has the rest
    bool operator==(const LoadedModule &) const = default;
};
bool find_loaded(uintptr_t address, LoadedModule &loaded);

// The rest, at the price of a system call. The path is where the loader has it.
bool read_module(const LoadedModule &loaded, Module &module, uintptr_t &path);

// Both.
bool find_module(uintptr_t address, Module &module, uintptr_t &path);

// Whether one of its segments is at an address: there may be gaps between them.
bool has_segment_at(const Module &module, uintptr_t address);

// Whether a module defines a symbol of a name for others.
bool defines(const Module &module, const char *name);

// What a symbol names, by where its file has it: thread-local variables by where they lie in the module's thread-local
// memory.
enum class Named { function, variable, thread_local_variable };
struct NamedPlace {
    size_t name_length; // 0: there is none
    uintptr_t begin, end;
};

// Finds what covers a place in the module, and puts its name, cut to the room there is, without a terminator. The file is
// searched if it is the one that was loaded (a descriptor; -1 for none), then the symbols that are in memory.
NamedPlace find_named(Named kind, const Module &module, int file, uintptr_t place, std::span<char> name);

} // namespace k42mc::internal::platform
