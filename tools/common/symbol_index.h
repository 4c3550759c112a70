// The symbol table of a module, by address.
#pragma once

#include <elfutils/libdwfl.h>
#include <vector>

// Finds what libdw's own search finds, which goes through the whole table for each address.
class SymbolIndex {
public:
    explicit SymbolIndex(Dwfl_Module *module);

    // The symbol around an address of libdw's layout, as the linker knows it; null when there is none.
    const char *name_at(GElf_Addr address) const;

private:
    struct Symbol {
        GElf_Addr begin, end;
        GElf_Addr most_end; // of those up to here
        const char *name;
        unsigned char info;
    };
    using Symbols = std::vector<Symbol>;

    static void sort(Symbols &symbols);
    static const Symbol *find(const Symbols &symbols, GElf_Addr address);
    bool may_be_labelled(GElf_Addr address) const;

    Dwfl_Module *module_;
    Symbols globals_, locals_; // that have a size, sorted
    Symbols labels_;           // that have none
};
