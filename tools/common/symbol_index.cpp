#include "tools/common/symbol_index.h"

#include <algorithm>
#include <array>
#include <tuple>

namespace {

bool has_place(const char *name, const GElf_Sym &symbol) {
    constexpr std::array<int, 3> placeless = {STT_SECTION, STT_FILE, STT_TLS};
    return name != nullptr && *name != '\0' && symbol.st_shndx != SHN_UNDEF &&
           std::ranges::count(placeless, GELF_ST_TYPE(symbol.st_info)) == 0;
}

int strength(unsigned char info) {
    const int binding = GELF_ST_BIND(info);
    return binding == STB_GLOBAL ? 2 : binding == STB_WEAK ? 1 : 0;
}

} // namespace

SymbolIndex::SymbolIndex(Dwfl_Module *module) : module_(module) {
    const int count = dwfl_module_getsymtab(module);
    const int first_global = dwfl_module_getsymtab_first_global(module);
    for (int i = 1; i < count; ++i) {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char *const name =
            dwfl_module_getsym_info(module, i, &symbol, &address, nullptr, nullptr, nullptr);
        if (!has_place(name, symbol))
            continue;
        const GElf_Addr end = address + symbol.st_size;
        Symbols &symbols = end <= address ? labels_ : i < first_global ? locals_ : globals_;
        symbols.push_back({address, end, 0, name, symbol.st_info});
    }
    for (Symbols *symbols : {&globals_, &locals_, &labels_})
        sort(*symbols);
}

// The best of those that begin at one address comes last: the shortest, the strongest, the first in the table.
void SymbolIndex::sort(Symbols &symbols) {
    std::ranges::reverse(symbols);
    std::ranges::stable_sort(symbols, [](const Symbol &left, const Symbol &right) {
        return std::tuple(left.begin, right.end, strength(left.info)) <
               std::tuple(right.begin, left.end, strength(right.info));
    });
    GElf_Addr most_end = 0;
    for (Symbol &symbol : symbols)
        symbol.most_end = most_end = std::max(most_end, symbol.end);
}

// The one around the address that begins last.
const SymbolIndex::Symbol *SymbolIndex::find(const Symbols &symbols, GElf_Addr address) {
    auto at = std::ranges::upper_bound(symbols, address, {}, &Symbol::begin);
    while (at != symbols.begin() && (--at)->most_end > address)
        if (at->end > address)
            return &*at;
    return nullptr;
}

// Labels count up to the next symbol.
bool SymbolIndex::may_be_labelled(GElf_Addr address) const {
    const auto last = [&](const Symbols &symbols) {
        const auto after = std::ranges::upper_bound(symbols, address, {}, &Symbol::begin);
        return after == symbols.begin() ? nullptr : &*std::prev(after);
    };
    const Symbol *const label = last(labels_);
    if (label == nullptr)
        return false;
    return std::ranges::all_of(std::array{last(globals_), last(locals_)}, [&](const Symbol *symbol) {
        return symbol == nullptr || symbol->most_end <= label->begin;
    });
}

const char *SymbolIndex::name_at(GElf_Addr address) const {
    for (const Symbols *symbols : {&globals_, &locals_})
        if (const Symbol *symbol = find(*symbols, address))
            // Without a symbol of its own, code would have that of what lies ahead of it.
            return GELF_ST_TYPE(symbol->info) != STT_OBJECT ? symbol->name : nullptr;
    if (!may_be_labelled(address))
        return nullptr;
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char *const name =
        dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
    return name != nullptr && GELF_ST_TYPE(symbol.st_info) != STT_OBJECT ? name : nullptr;
}
