#include "platform/unloadable_modules.h"

#include "platform/dwarf.h"

#include <atomic>

#include <elf.h>

namespace k42mc::internal::platform {
namespace {

// The first page of a mapping is there, whatever the module; its headers are in it, and its notes nearly
// always.
constexpr uintptr_t surely_mapped = 4096;

struct Identity {
    static constexpr size_t most = 20;

    uintptr_t module, table;
    uint32_t offset, size; // within the module
    uint8_t bytes[most];
};

struct UnloadableModule {
    std::atomic<bool> is_known;
    Identity identity;
};

constexpr uint32_t most_modules = 256;
constinit UnloadableModule gModules[most_modules] = {};
constinit std::atomic<uint32_t> gClaimed = 0;

// A note with the build's identity, within the notes that lie there.
bool find_note(uintptr_t module, dwarf::Reader notes, Identity &identity) {
    constexpr char name[] = "GNU";
    const auto padded = [](uint32_t size) { return (uintptr_t{size} + 3) & ~uintptr_t{3}; };
    while (notes.left() > sizeof(ElfW(Nhdr))) {
        const auto header = notes.read<ElfW(Nhdr)>();
        const uintptr_t owner = notes.position();
        notes.skip(padded(header.n_namesz));
        const uintptr_t bytes = notes.position();
        if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == sizeof name &&
            memcmp(reinterpret_cast<const void *>(owner), name, sizeof name) == 0 &&
            header.n_descsz > 0 && header.n_descsz <= notes.left()) {
            identity.offset = static_cast<uint32_t>(bytes - module);
            identity.size = header.n_descsz < Identity::most ? header.n_descsz : Identity::most;
            memcpy(identity.bytes, reinterpret_cast<const void *>(bytes), identity.size);
            return true;
        }
        notes.skip(padded(header.n_descsz));
    }
    return false;
}

bool identify(const FrameTable &table, Identity &identity) {
    const uintptr_t module = table.module_begin, end = module + surely_mapped;
    identity.module = module;
    identity.table = table.address;
    dwarf::Reader reader(module, end);
    const auto header = reader.read<ElfW(Ehdr)>();
    if (memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_phoff >= surely_mapped)
        return false;
    dwarf::Reader segments(module + header.e_phoff, end);
    for (int i = 0; i < header.e_phnum && !segments.at_end(); ++i) {
        const auto segment = segments.read<ElfW(Phdr)>();
        const uintptr_t notes = table.module->l_addr + segment.p_vaddr;
        if (segment.p_type != PT_NOTE || notes < module || notes >= end)
            continue;
        dwarf::Reader within(notes, end);
        within.end_at(notes + segment.p_filesz);
        if (find_note(module, within, identity))
            return true;
    }
    return false;
}

bool is_there(const Identity &identity, const FrameTable &now) {
    return now.module_begin == identity.module && now.address == identity.table &&
           memcmp(reinterpret_cast<const void *>(identity.module + identity.offset), identity.bytes,
                  identity.size) == 0;
}

} // namespace

uint16_t number_unloadable_module(const FrameTable &table) {
    const uint32_t claimed = gClaimed.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < claimed && i < most_modules; ++i)
        if (gModules[i].is_known.load(std::memory_order_acquire) &&
            is_there(gModules[i].identity, table))
            return static_cast<uint16_t>(i + 1);
    Identity identity;
    if (claimed >= most_modules || !identify(table, identity))
        return unknown_module;
    const uint32_t own = gClaimed.fetch_add(1, std::memory_order_relaxed);
    if (own >= most_modules)
        return unknown_module;
    gModules[own].identity = identity;
    gModules[own].is_known.store(true, std::memory_order_release);
    return static_cast<uint16_t>(own + 1);
}

bool ModuleCheck::look_up(uint16_t number) {
    if (number == unknown_module)
        return false;
    const Identity &identity = gModules[number - 1].identity;
    FrameTable now;
    if (!find_frame_table(identity.module, now) || !is_there(identity, now))
        return false;
    in_place_ = number;
    return true;
}

} // namespace k42mc::internal::platform
