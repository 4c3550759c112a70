#include "platform/definition.h"

#include "platform/startup_modules.h"

#include <string.h>

namespace k42mc::internal::platform {
namespace {

using Symbol = ElfW(Sym);
using Version = ElfW(Half);

// The name's hash table, in the form that linkers have made for long.
struct HashTable {
    uint32_t bucket_count, first_symbol, filter_words, filter_shift;

    const uint32_t *buckets() const {
        const auto *filter = reinterpret_cast<const uintptr_t *>(this + 1);
        return reinterpret_cast<const uint32_t *>(filter + filter_words);
    }
    // From the symbol on, up to the one whose lowest bit is set.
    const uint32_t *hashes_from(uint32_t symbol) const {
        return buckets() + bucket_count + (symbol - first_symbol);
    }
};

uint32_t hash_of(const char *name) {
    uint32_t hash = 5381;
    for (; *name != '\0'; ++name)
        hash = hash * 33 + static_cast<unsigned char>(*name);
    return hash;
}

// The loader has moved these addresses to where the module is, unless the section is read-only.
template <class Entry> const Entry *table_of(const link_map *module, ElfW(Sxword) tag) {
    for (const ElfW(Dyn) *entry = module->l_ld; entry->d_tag != DT_NULL; ++entry)
        if (entry->d_tag == tag) {
            const uintptr_t value = entry->d_un.d_ptr;
            return reinterpret_cast<const Entry *>( // NOLINT(performance-no-int-to-ptr)
                value >= module->l_addr ? value : module->l_addr + value);
        }
    return nullptr;
}

// Earlier versions of a function are there for programs that ask for them.
bool is_default(const Version *versions, uint32_t symbol) {
    constexpr Version hidden = 0x8000;
    return versions == nullptr || (versions[symbol] & hidden) == 0;
}

const Symbol *find_symbol(const link_map *module, const HashTable &table, const char *name) {
    const auto *symbols = table_of<Symbol>(module, DT_SYMTAB);
    const auto *names = table_of<char>(module, DT_STRTAB);
    const auto *versions = table_of<Version>(module, DT_VERSYM);
    const uint32_t wanted = hash_of(name);
    uint32_t symbol = table.bucket_count != 0 ? table.buckets()[wanted % table.bucket_count] : 0;
    if (symbol == 0)
        return nullptr;
    for (const uint32_t *hash = table.hashes_from(symbol);; ++hash, ++symbol) {
        if ((*hash | 1) == (wanted | 1) && is_default(versions, symbol) &&
            strcmp(names + symbols[symbol].st_name, name) == 0)
            return &symbols[symbol];
        if ((*hash & 1) != 0)
            return nullptr;
    }
}

const link_map *own_module() {
    dl_find_object found;
    return _dl_find_object(reinterpret_cast<void *>(&next_definition), &found) == 0 ? found.dlfo_link_map
                                                                                    : nullptr;
}

} // namespace

void *next_definition(const char *name) {
    const link_map *module = own_module();
    while (module != nullptr && (module = module->l_next) != nullptr && is_startup_module(module)) {
        const auto *table = table_of<HashTable>(module, DT_GNU_HASH);
        if (table == nullptr)
            return nullptr;
        const Symbol *symbol = find_symbol(module, *table, name);
        if (symbol != nullptr) // what a resolver chooses is the loader's business
            return ELF64_ST_TYPE(symbol->st_info) == STT_FUNC
                       ? reinterpret_cast<void *>( // NOLINT(performance-no-int-to-ptr)
                             module->l_addr + symbol->st_value)
                       : nullptr;
    }
    return nullptr;
}

} // namespace k42mc::internal::platform
