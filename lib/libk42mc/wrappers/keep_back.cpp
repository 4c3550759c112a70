#include "wrappers/keep_back.h"

#include "base/errno_keeper.h"
#include "memcheck/inheritance.h"
#include "memcheck/reach/range.h"
#include "memcheck/reach/work_memory.h"
#include "platform/shared_pages.h"
#include "wrappers/notice.h"

#include <algorithm>
#include <stdio.h>
#include <stdlib.h>

namespace k42mc::internal {
namespace {

constexpr size_t least_limit = 64 << 10; // for the quarantine's own memory, too

// What shared memory keeps back would be lost to other processes, for good once this one is gone.
bool may_be_kept(uint16_t type, size_t raw_size) {
    return type != MC_SHM && fits_quarantine(raw_size);
}

[[noreturn]] void stop_at_late_write(const RetiredBlock &block, ptrdiff_t change) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // nothing runs after the report
    fflush(stdout);
    print_bad_access({"WF", block.arena, block.user, block.size, change, block.allocation});
    explain_late_write(block, change);
    stop_here();
}

// As many as the stack has room for. Returns whether there were any.
bool release_some(Leaving leaving) {
    RetiredBlock blocks[8];
    const size_t count = take_retired(leaving, blocks);
    for (const RetiredBlock &block : std::span(blocks).first(count)) {
        ptrdiff_t change;
        if (is_changed(block, change)) [[unlikely]]
            stop_at_late_write(block, change);
        free(block.raw);
    }
    return count != 0;
}

// Returns whether there were any.
[[gnu::noinline]] bool release_all(Leaving leaving) {
    const ErrnoKeeper keep_errno;
    bool any = false;
    while (release_some(leaving))
        any = true;
    return any;
}

// Those of a forked child that are as they were before: its parent looks at them as well.
class UnchangedBlocks {
public:
    UnchangedBlocks()
        : room_(platform::single_threaded() && is_heir() ? bytes : 0),
          pages_(room_.take<platform::SharedPages::Window>(room_ ? windows : 0)) {}

    bool has(const RetiredBlock &block) {
        const auto begin = reinterpret_cast<uintptr_t>(block.raw), end = begin + block.raw_size;
        bool all = room_ && begin != end;
        for (uintptr_t at = begin; all && at < end; at = (at & -smallest_page) + smallest_page)
            all = pages_.has(at);
        return all;
    }

private:
    static constexpr size_t windows = 64, bytes = windows * sizeof(platform::SharedPages::Window);
    WorkMemory room_;
    platform::SharedPages pages_;
};

constinit pthread_once_t exit_hooked = PTHREAD_ONCE_INIT;

} // namespace

void *release_and_keep(Site site, uint16_t type, void *user, KnownBlock known) {
    GuardTrace allocation;
    const ReleasedBlock block = guard_release(type + 1u, user, known, explain_stop, &allocation);
    return keep_back(site, type, user, block, allocation);
}

void *keep_back(Site site, uint16_t type, void *user, const ReleasedBlock &block,
                const GuardTrace &allocation) {
    const AtQuarantine at_quarantine;
    if (!at_quarantine || !may_be_kept(type, block.raw_size))
        return block.raw;
    const RetiredBlock retired = {.raw = block.raw,
                                  .raw_size = block.raw_size,
                                  .user = user,
                                  .size = block.user_size,
                                  .release = site,
                                  .thread = number_of_thread(),
                                  .arena = type + 1u,
                                  .allocation = allocation};
    fill_retired(retired);
    bool others_must_go = false;
    if (!keep_retired(retired, others_must_go))
        return block.raw;
    if (others_must_go) [[unlikely]]
        release_all(Leaving::overdue);
    return nullptr;
}

bool has_to_move(uint16_t type, const ReleasedBlock &block, size_t size) {
    constexpr size_t small = 4096, parts = 8;
    if (!quarantine_on() || !may_be_kept(type, block.raw_size))
        return false;
    const auto [lesser, larger] = std::minmax(block.user_size, size);
    return larger <= small || larger - lesser >= larger / parts;
}

bool empty_quarantine() {
    if (!quarantine_on()) [[likely]]
        return false;
    const AtQuarantine at_quarantine;
    return at_quarantine && release_all(Leaving::all);
}

void examine_quarantine() {
    RetiredBlock found;
    ptrdiff_t change = 0;
    bool is_found = false;
    GuardInspector inspector;
    UnchangedBlocks unchanged;
    auto is_sound = [&](const RetiredBlock &block) {
        if (unchanged.has(block))
            return true;
        is_found = is_changed(block, change, inspector);
        if (is_found)
            found = block;
        return !is_found;
    };
    if (quarantine_on())
        each_retired(is_sound);
    if (is_found)
        stop_at_late_write(found, change);
}

int set_quarantine(size_t bytes) {
    if (bytes != 0 && bytes < least_limit)
        return EINVAL;
    prepare_quarantine();
    quarantine_limit.store(bytes, std::memory_order_relaxed);
    const AtQuarantine at_quarantine;
    if (at_quarantine)
        release_all(bytes != 0 ? Leaving::overdue : Leaving::all);
    return 0;
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_quarantine(size_t bytes) {
    const int failure = set_quarantine(bytes);
    if (failure == 0)
        pthread_once(&exit_hooked, [] { static_cast<void>(atexit(examine_quarantine)); });
    return failure;
}

K42MC_EXPORT(k42mcx_quarantine);
