// Nothing that is read here is believed: a file may be damaged, cut short or replaced, and a module may
// be on its way out. Every access goes through fetch, which answers how much there was.
#include "platform/module.h"

#include "platform/bytes.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>

#include <link.h>

namespace k42mc::internal::platform {
namespace {

using FileHeader = ElfW(Ehdr);
using ProgramHeader = ElfW(Phdr);
using SectionHeader = ElfW(Shdr);
using Symbol = ElfW(Sym);
using DynamicEntry = ElfW(Dyn);

struct SymbolTable {
    Source source;
    uint64_t symbols; // the offset of the first
    size_t count;
    uint64_t strings; // the offset of their names
    size_t string_bytes;
};

bool is_local(const Symbol &symbol) {
    return ELF64_ST_BIND(symbol.st_info) == STB_LOCAL;
}

bool is_of_kind(Named kind, const Symbol &symbol) {
    const auto type = ELF64_ST_TYPE(symbol.st_info);
    switch (kind) {
    case Named::variable:
        return type == STT_OBJECT;
    case Named::thread_local_variable:
        return type == STT_TLS;
    case Named::function:
        break;
    }
    return type == STT_FUNC || type == STT_GNU_IFUNC;
}

bool covers(Named kind, const Symbol &symbol, uintptr_t place) {
    return is_of_kind(kind, symbol) && symbol.st_shndx != SHN_UNDEF &&
           place - symbol.st_value < symbol.st_size;
}

// The first global symbol that covers the place, else the first local one.
bool find_symbol(Named kind, const SymbolTable &table, uintptr_t place, Symbol &best) {
    Symbol chunk[4096 / sizeof(Symbol)]; // a page: threads may have small stacks
    bool found = false;
    for (size_t done = 0; done < table.count; done += std::size(chunk)) {
        const size_t wanted = std::min(table.count - done, std::size(chunk));
        const uint64_t offset = table.symbols + uint64_t{done} * sizeof(Symbol);
        const size_t got = fetch(table.source, offset, chunk, wanted * sizeof(Symbol)) / sizeof(Symbol);
        for (const Symbol &symbol : std::span(chunk, got)) {
            if (!covers(kind, symbol, place) || (found && is_local(symbol)))
                continue;
            best = symbol;
            found = true;
            if (!is_local(symbol))
                return true;
        }
        if (got < wanted)
            break;
    }
    return found;
}

NamedPlace find_in_table(Named kind, const SymbolTable &table, uintptr_t place, std::span<char> name) {
    Symbol symbol;
    if (!find_symbol(kind, table, place, symbol) || symbol.st_name >= table.string_bytes)
        return {};
    const size_t most = std::min<size_t>(name.size(), table.string_bytes - symbol.st_name);
    const size_t got = fetch(table.source, table.strings + symbol.st_name, name.data(), most);
    return {strnlen(name.data(), got), symbol.st_value, symbol.st_value + symbol.st_size};
}

// ---- The file ----

bool same_bytes(int file, uint64_t offset, uintptr_t address, size_t size) {
    char in_file[256], in_memory[256];
    for (size_t done = 0; done < size; done += sizeof in_file) {
        const size_t piece = std::min(size - done, sizeof in_file);
        if (fetch({file}, offset + done, in_file, piece) != piece ||
            fetch(own_memory, address + done, in_memory, piece) != piece ||
            memcmp(in_file, in_memory, piece) != 0)
            return false;
    }
    return true;
}

// Compares the headers, and the notes: they hold the build's identity.
bool is_loaded_file(const Module &module, int file, const FileHeader &header) {
    const size_t header_bytes = header.e_phnum * sizeof(ProgramHeader);
    if (!same_bytes(file, 0, module.begin, sizeof header) ||
        !same_bytes(file, header.e_phoff, module.begin + header.e_phoff, header_bytes))
        return false;
    for (size_t i = 0; i < header.e_phnum; ++i) {
        ProgramHeader segment;
        if (!fetch({file}, header.e_phoff + i * sizeof segment, segment))
            return false;
        if (segment.p_type == PT_NOTE &&
            !same_bytes(file, segment.p_offset, module.base + segment.p_vaddr, segment.p_filesz))
            return false;
    }
    return true;
}

bool fetch_section(int file, const FileHeader &header, size_t index, SectionHeader &section) {
    return index < header.e_shnum && fetch({file}, header.e_shoff + index * sizeof section, section);
}

SymbolTable file_symbols(const Module &module, int file) {
    FileHeader header;
    if (file < 0 || !fetch({file}, 0, header) || !is_loaded_file(module, file, header))
        return {};
    SectionHeader section, strings;
    for (size_t i = 0; fetch_section(file, header, i, section); ++i) {
        if (section.sh_type == SHT_SYMTAB && fetch_section(file, header, section.sh_link, strings))
            return {{file},
                    section.sh_offset,
                    section.sh_size / sizeof(Symbol),
                    strings.sh_offset,
                    strings.sh_size};
    }
    return {};
}

// ---- The memory ----

// Many at a time, as each reading is a system call or two.
uintptr_t dynamic_value(const Module &module, ElfW(Sxword) tag) {
    DynamicEntry entries[32];
    size_t got = std::size(entries);
    for (uintptr_t at = module.dynamic; got == std::size(entries); at += sizeof entries) {
        got = fetch(own_memory, at, entries, sizeof entries) / sizeof entries[0];
        for (const DynamicEntry &entry : std::span(entries).first(got)) {
            if (entry.d_tag == DT_NULL)
                return 0;
            if (entry.d_tag == tag)
                return entry.d_un.d_val;
        }
    }
    return 0;
}

// The loader has moved these addresses to where the module is, unless the section is read-only.
uintptr_t dynamic_address(const Module &module, ElfW(Sxword) tag) {
    const uintptr_t value = dynamic_value(module, tag);
    const bool moved = value >= module.begin && value < module.end;
    return value == 0 || moved ? value : module.base + value;
}

// Nothing says how many symbols there are, but the table ends where another one begins.
SymbolTable memory_symbols(const Module &module) {
    const uintptr_t symbols = dynamic_address(module, DT_SYMTAB);
    const uintptr_t strings = dynamic_address(module, DT_STRTAB);
    if (symbols < module.begin || symbols >= module.end)
        return {};
    uintptr_t end = module.end;
    for (const int tag : {DT_STRTAB, DT_HASH, DT_GNU_HASH, DT_VERSYM, DT_VERDEF, DT_VERNEED, DT_REL,
                          DT_RELA, DT_JMPREL}) {
        const uintptr_t other = dynamic_address(module, tag);
        if (other > symbols)
            end = std::min(end, other);
    }
    return {own_memory, symbols, (end - symbols) / sizeof(Symbol), strings,
            dynamic_value(module, DT_STRSZ)};
}

} // namespace

bool find_loaded(uintptr_t address, LoadedModule &loaded) {
    dl_find_object found;
    if (_dl_find_object(reinterpret_cast<void *>(address), &found) != 0)
        return false;
    loaded = {reinterpret_cast<uintptr_t>(found.dlfo_map_start),
              reinterpret_cast<uintptr_t>(found.dlfo_map_end),
              reinterpret_cast<uintptr_t>(found.dlfo_link_map)};
    return true;
}

bool find_module(uintptr_t address, Module &module, uintptr_t &path) {
    LoadedModule loaded;
    return find_loaded(address, loaded) && read_module(loaded, module, path);
}

bool read_module(const LoadedModule &loaded, Module &module, uintptr_t &path) {
    link_map map;
    if (!fetch(own_memory, loaded.record, map))
        return false;
    module = {loaded.begin, loaded.end, map.l_addr, reinterpret_cast<uintptr_t>(map.l_ld)};
    path = reinterpret_cast<uintptr_t>(map.l_name);
    return true;
}

bool has_segment_at(const Module &module, uintptr_t address) {
    FileHeader header;
    if (!fetch(own_memory, module.begin, header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return false;
    for (size_t i = 0; i < header.e_phnum; ++i) {
        ProgramHeader segment;
        if (!fetch(own_memory, module.begin + header.e_phoff + i * sizeof segment, segment))
            return false;
        if (segment.p_type == PT_LOAD && address - (module.base + segment.p_vaddr) < segment.p_memsz)
            return true;
    }
    return false;
}

bool defines(const Module &module, const char *name) {
    const size_t size = strlen(name) + 1;
    const SymbolTable table = memory_symbols(module);
    for (size_t i = 0; i < table.count; ++i) {
        Symbol symbol;
        char text[64];
        if (!fetch(table.source, table.symbols + i * sizeof symbol, symbol))
            return false;
        if (symbol.st_shndx != SHN_UNDEF && !is_local(symbol) &&
            fetch(table.source, table.strings + symbol.st_name, text, size) == size &&
            memcmp(text, name, size) == 0)
            return true;
    }
    return false;
}

NamedPlace find_named(Named kind, const Module &module, int file, uintptr_t place,
                      std::span<char> name) {
    const NamedPlace found = find_in_table(kind, file_symbols(module, file), place, name);
    return found.name_length != 0 ? found : find_in_table(kind, memory_symbols(module), place, name);
}

} // namespace k42mc::internal::platform
