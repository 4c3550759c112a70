#include "wrappers/stray_pointer.h"

#include "base/errno_keeper.h"
#include "base/gate.h"

namespace k42mc::internal {
namespace {

using Kind = StrayPointer::Kind;

// Whose memory is the same for all threads but for the stacks: what nobody else lays claim to may be part of a
// block, or the stack of one of them.
StrayPointer examine_memory(uintptr_t address, uintptr_t reach) {
    StrayPointer pointer;
    if (is_on_visitors_stack(address))
        pointer.kind = Kind::on_other_stack;
    else if (find_block_around(address, reach, pointer.block))
        pointer.kind = Kind::in_block;
    else
        pointer.may_be_anothers = true;
    return pointer;
}

} // namespace

StrayPointer examine_pointer(const void *pointer, uintptr_t reach) {
    const ErrnoKeeper keep_errno;
    switch (platform::place_of(pointer)) {
    case platform::Place::this_stack:
        return {.kind = Kind::on_own_stack};
    case platform::Place::first_stack:
        return {.kind = Kind::on_other_stack};
    case platform::Place::module:
        return {.kind = Kind::in_module};
    case platform::Place::allocators_module:
        return {.kind = Kind::in_module, .may_be_anothers = true};
    case platform::Place::nothing:
        return {.kind = Kind::nowhere};
    case platform::Place::unknown:
        break;
    }
    return examine_memory(reinterpret_cast<uintptr_t>(pointer), reach);
}

} // namespace k42mc::internal
