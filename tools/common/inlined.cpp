#include "tools/common/inlined.h"

#include <algorithm>
#include <dwarf.h>

namespace {

// Not back to where it was, wherever damaged debug information leads.
bool go_to_sibling(Dwarf_Die &die) {
    const Dwarf_Off offset = dwarf_dieoffset(&die);
    return dwarf_siblingof(&die, &die) == 0 && dwarf_dieoffset(&die) > offset;
}

bool is_scope(Dwarf_Die *die) {
    switch (dwarf_tag(die)) {
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_try_block:
    case DW_TAG_catch_block:
        return true;
    default:
        return false;
    }
}

// Goes to the scope around the address that lies directly in this one.
bool go_inside(Dwarf_Die &scope, Dwarf_Addr address) {
    if (dwarf_child(&scope, &scope) != 0)
        return false;
    do
        if (is_scope(&scope) && dwarf_haspc(&scope, address) > 0)
            return true;
    while (go_to_sibling(scope));
    return false;
}

} // namespace

UnitFunctions::UnitFunctions(Dwarf_Die *unit) {
    const auto take = [](Dwarf_Die *function, void *functions) {
        static_cast<UnitFunctions *>(functions)->add(function);
        return static_cast<int>(DWARF_CB_OK);
    };
    dwarf_getfuncs(unit, take, this, 0);
    std::ranges::stable_sort(code_, {}, &Code::begin);
}

void UnitFunctions::add(Dwarf_Die *function) {
    Dwarf_Addr base = 0, begin = 0, end = 0;
    for (ptrdiff_t at = 0; (at = dwarf_ranges(function, at, &base, &begin, &end)) > 0;)
        code_.push_back({begin, end, *function});
}

std::vector<Dwarf_Die> UnitFunctions::inlined_at(Dwarf_Addr address) const {
    std::vector<Dwarf_Die> inlined;
    const auto after = std::ranges::upper_bound(code_, address, {}, &Code::begin);
    if (after == code_.begin() || std::prev(after)->end <= address)
        return inlined;
    for (Dwarf_Die scope = std::prev(after)->function; go_inside(scope, address);)
        if (dwarf_tag(&scope) == DW_TAG_inlined_subroutine)
            inlined.push_back(scope);
    std::ranges::reverse(inlined);
    return inlined;
}
