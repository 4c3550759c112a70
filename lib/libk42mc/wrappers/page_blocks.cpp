#include "wrappers/page_blocks.h"

#include "base/errno_keeper.h"
#include "memcheck/registry.h"
#include "memcheck/registry_lines.h"
#include "wrappers/notice.h"

#include <algorithm>

namespace k42mc::internal {
namespace {

Defect defect_of(int code, const PageBlock &block, const Deed &deed) {
    Defect defect = {.code = code, .arena = K42MC_ARENA_UNKNOWN, .size = block.size, .trace = {}};
    const auto frames = deed.trace();
    for (size_t i = 0; i < std::min(frames.size(), defect.trace.size()); ++i)
        defect.trace[i] = reinterpret_cast<uintptr_t>(frames[i]);
    return defect;
}

Defect second_release(const PageBlock &block) {
    Defect defect = defect_of(K42MC_DEFECT_DF, block, block.release);
    defect.arena = block.arena;
    return defect;
}

// Of a pointer that no block begins at, in the terms of the one that it leads into.
Defect stray_release(const void *ptr) {
    const PageBlock *const block = block_near(reinterpret_cast<uintptr_t>(ptr));
    if (block == nullptr)
        return {.code = K42MC_DEFECT_WU};
    Defect defect = defect_of(K42MC_DEFECT_WU, *block, block->allocation);
    defect.arena = block->arena;
    return defect;
}

Defect examine(uint32_t arena, const PageBlock &block) {
    if (const int code = page_block_defect(block))
        return defect_of(code, block, block.allocation);
    if (block.arena == arena)
        return {};
    Defect defect = defect_of(K42MC_DEFECT_BF, block, block.allocation);
    defect.arena = block.arena;
    return defect;
}

} // namespace

PageBlock *make_page_block(Site site, uint16_t type, size_t alignment, size_t size) {
    if (!fits_in_pages(size, alignment))
        return nullptr;
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    return make_page_block({name_of(site), site.line}, type + 1u, size, alignment, trace);
}

void *hand_out_pages(Site site, uint16_t type, size_t alignment, size_t size) {
    const ErrnoKeeper keep_errno;
    const PageBlock *const block = make_page_block(site, type, alignment, size);
    if (block == nullptr)
        return nullptr;
    StackTrace trace;
    trace.capture(trace_depth());
    record_block(site, type, block->user(), size, trace);
    return block->user();
}

PageBlock &claim_page_block(uint32_t arena, void *ptr, KnownBlock known) {
    PageBlock *const block = page_block_at(ptr);
    if (block == nullptr)
        stop_process({stray_release(ptr), arena, ptr, known}, explain_stop);
    if (!claim_release(*block))
        stop_process({second_release(*block), arena, ptr, known}, explain_stop);
    known = {.header_readable = true, .site = known.site, .tail = block->address + block->size};
    if (const Defect defect = examine(arena, *block); defect.code != K42MC_DEFECT_NONE)
        stop_process({defect, arena, ptr, known}, explain_stop);
    return *block;
}

void take_back_pages(Site site, uint16_t type, void *ptr) {
    const KnownBlock known = forget_block(site, type, ptr);
    PageBlock &block = claim_page_block(type + 1u, ptr, known);
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    end_page_block(block, trace);
}

} // namespace k42mc::internal
