// What the compiler inlined, by debug information.
#pragma once

#include <elfutils/libdw.h>
#include <vector>

// The functions of a compilation unit, by the addresses of their code. It is read once: a search from its top for each
// address takes milliseconds in a unit of C++.
class UnitFunctions {
public:
    explicit UnitFunctions(Dwarf_Die *unit);

    // The inlined functions around an address, innermost first.
    std::vector<Dwarf_Die> inlined_at(Dwarf_Addr address) const;

private:
    struct Code {
        Dwarf_Addr begin, end;
        Dwarf_Die function;
    };
    void add(Dwarf_Die *function);

    std::vector<Code> code_; // sorted
};
