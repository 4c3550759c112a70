#include "memcheck/allocation.h"

#include "base/checker_lock.h"
#include "k42mc_debug.h"
#include "memcheck/block_index.h"
#include "memcheck/registry.h"
#include "pages/block.h"

namespace k42mc::internal {
namespace {

constexpr uintptr_t guard_bytes = K42MC_GUARD_OVERHEAD / 2;

// A record may be of a block that went away unseen.
bool is_live(const Record &record) {
    const auto *user =
        reinterpret_cast<const void *>(record.address); // NOLINT(performance-no-int-to-ptr)
    if (!in_page_range(user))
        return has_guards(user, record.size);
    const PageBlock *const block = page_block_at(user);
    return block != nullptr && block->is_live();
}

} // namespace

bool find_site(uint32_t number, AllocationSite &site) {
    if (number == 0)
        return false;
    const CheckerLock lock(take_checker_lock_in_time());
    if (!lock || !registry_exists() || gMCSites[number / SiteChunk::room] == nullptr)
        return false;
    site = site_at(number);
    return true;
}

// The first live block on the way down is the one, or there is none: live blocks do not overlap.
bool find_block_around(uintptr_t address, uintptr_t reach, Allocation &found) {
    const CheckerLock lock(take_checker_lock_in_time());
    if (!lock || !registry_exists() || address > UINTPTR_MAX - guard_bytes)
        return false;
    uintptr_t highest = address + guard_bytes - 1; // in whose header the address may lie
    const uintptr_t lowest = address > reach ? address - reach : 0;
    while (const uint32_t number = find_last_record(highest, lowest)) {
        const Record &record = record_at(number);
        if (is_live(record)) {
            found = {record.address, record.size, site_at(record.site)};
            return address < record.address ||
                   (address > record.address && address - record.address < record.size + guard_bytes);
        }
        if (record.address == 0)
            break;
        highest = record.address - 1;
    }
    return false;
}

} // namespace k42mc::internal
