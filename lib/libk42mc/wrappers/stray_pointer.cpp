#include "wrappers/stray_pointer.h"

#include "base/errno_keeper.h"
#include "base/gate.h"
#include "pages/pool.h"

#include <algorithm>

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

StrayPointer examine_pages(uintptr_t address) {
    const PageBlock *const block = block_near(address);
    if (block == nullptr)
        return {.kind = Kind::nowhere};
    StrayPointer pointer = {.kind = block->is_released() ? Kind::in_released_block : Kind::in_block};
    pointer.block.address = block->address;
    pointer.block.size = block->size;
    AllocationSite &site = pointer.block.site;
    const auto frames = block->allocation.trace();
    site.file = block->site.file;
    site.line = block->site.line;
    site.type = static_cast<uint16_t>(block->arena - 1);
    site.frame_count = static_cast<uint8_t>(frames.size());
    std::copy(frames.begin(), frames.end(), site.frames);
    return pointer;
}

} // namespace

StrayPointer examine_pointer(const void *pointer, uintptr_t reach) {
    const ErrnoKeeper keep_errno;
    if (in_page_range(pointer))
        return examine_pages(reinterpret_cast<uintptr_t>(pointer));
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
