// A thread's control block leads to the vector of where its memory for each module lies. Modules have numbers in it, by the
// order of their loading; the loader, which knows them, has locks. So this stays with the modules that were loaded with
// the program, and makes sure of the order by a variable of which it knows the module.
#include "platform/thread_local_memory.h"

#include "platform/bytes.h"
#include "platform/module.h"
#include "platform/startup_modules.h"

#include <errno.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <pthread.h>

namespace k42mc::internal::platform {
namespace {

uintptr_t thread_local_bytes_of(const Module &module) {
    ElfW(Ehdr) header;
    if (!fetch(own_memory, module.begin, header))
        return 0;
    for (size_t i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment;
        if (!fetch(own_memory, module.begin + header.e_phoff + i * sizeof segment, segment))
            return 0;
        if (segment.p_type == PT_TLS)
            return segment.p_memsz;
    }
    return 0;
}

// Where a thread has its memory of the module with that number; 0 where it has none.
uintptr_t memory_of(uintptr_t control_block, size_t number) {
    uintptr_t vector, memory;
    constexpr uintptr_t entry_bytes = 2 * sizeof memory;
    const bool is_known = fetch(own_memory, control_block + sizeof vector, vector) &&
                          fetch(own_memory, vector + number * entry_bytes, memory);
    return is_known && memory != UINTPTR_MAX ? memory : 0;
}

bool find_by_order(uintptr_t address, uintptr_t control_block, ThreadLocalPlace &place) {
    size_t number = 0;
    for (const link_map *map = _r_debug.r_map; map != nullptr && is_startup_module(map);
         map = map->l_next) {
        Module module;
        uintptr_t path;
        const uintptr_t dynamic = reinterpret_cast<uintptr_t>(map->l_ld);
        const uintptr_t bytes = find_module(dynamic, module, path) ? thread_local_bytes_of(module) : 0;
        if (bytes == 0)
            continue;
        const uintptr_t memory = memory_of(control_block, ++number);
        if (memory != 0 && address - memory < bytes) {
            place = {dynamic, address - memory};
            return true;
        }
    }
    return false;
}

// Whether the calling thread's variable is found in the module that a function belongs to.
bool is_found(const void *variable, const void *function) {
    ThreadLocalPlace place;
    Module found, expected;
    uintptr_t path;
    return find_by_order(reinterpret_cast<uintptr_t>(variable), static_cast<uintptr_t>(pthread_self()),
                         place) &&
           find_module(place.module, found, path) &&
           find_module(reinterpret_cast<uintptr_t>(function), expected, path) &&
           found.begin == expected.begin;
}

} // namespace

bool find_thread_local_place(uintptr_t address, uintptr_t control_block, ThreadLocalPlace &place) {
    return is_found(&errno, reinterpret_cast<void *>(gnu_get_libc_version)) &&
           find_by_order(address, control_block, place);
}

} // namespace k42mc::internal::platform
