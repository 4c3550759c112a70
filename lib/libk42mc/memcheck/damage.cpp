#include "memcheck/damage.h"

#include "k42mc_debug.h"
#include "pages/block.h"
#include "platform/platform.h"

#include <iterator>

namespace k42mc::internal {

int GuardInspector::defect(const Record &record) {
    if (in_page_range(record.address))
        return defect_in_pages(record);
    constexpr size_t guard = K42MC_GUARD_OVERHEAD / 2;
    if (!readable(record.address - guard, guard) || !readable(record.address + record.size, guard))
        return K42MC_DEFECT_NONE;
    const auto *user =
        reinterpret_cast<const void *>(record.address); // NOLINT(performance-no-int-to-ptr)
    return live_defect(record.type() + 1u, user, record.size);
}

int GuardInspector::defect_in_pages(const Record &record) {
    const PageBlock *const block = page_block_at(
        reinterpret_cast<const void *>(record.address)); // NOLINT(performance-no-int-to-ptr)
    if (block == nullptr || !block->is_live() || !readable(block->open_begin, 1) ||
        !readable(block->open_end - 1, 1))
        return K42MC_DEFECT_NONE;
    return page_block_defect(*block);
}

bool GuardInspector::readable(uintptr_t address, size_t size) {
    const uintptr_t last = (address + size - 1) / smallest_page;
    uintptr_t page = address / smallest_page;
    while (page < last && page_readable(page))
        ++page;
    return page == last && page_readable(page);
}

bool GuardInspector::page_readable(uintptr_t page) {
    uintptr_t &known = pages_[page % std::size(pages_)];
    if (known == page)
        return page != 0;
    const auto *address =
        reinterpret_cast<const void *>(page * smallest_page); // NOLINT(performance-no-int-to-ptr)
    if (!platform::readable(address, 1))
        return false;
    known = page;
    return true;
}

} // namespace k42mc::internal
