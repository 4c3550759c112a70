#include "memcheck/by_age.h"
#include "memcheck/control_lock.h"
#include "memcheck/damage.h"
#include "memcheck/late_write.h"
#include "memcheck/quarantine.h"
#include "memcheck/registry.h"

#include <k42mc/extra.h>

#include <algorithm>

namespace k42mc::internal {
namespace {

// Takes as many as there is room for, and counts all.
class BlockCopies {
public:
    BlockCopies(k42mcx_block *blocks, size_t room) : blocks_(blocks), room_(room) {}

    void add(const Record &record, const char *code) {
        const AllocationSite &site = site_at(record.site);
        add({.file = site.file,
             .line = site.line,
             .code = code,
             .type = gAllocatorType[site.type],
             .address = reinterpret_cast<void *>(record.address), // NOLINT(performance-no-int-to-ptr)
             .size = record.size,
             .is_kept = record.is_kept(),
             .frame_count = 0,
             .frames = {}},
            site.trace());
    }

    void add(const RetiredBlock &block, bool is_named) {
        add({.file = is_named ? block.release.file : "(unloaded)",
             .line = block.release.line,
             .code = "WF",
             .type = k42mc_arena_desc[block.arena],
             .address = block.user,
             .size = block.size,
             .is_kept = 0,
             .frame_count = 0,
             .frames = {}},
            RetiredTraces(block).allocation());
    }

    size_t count() const { return count_; }

private:
    void add(const k42mcx_block &block, std::span<void *const> frames) {
        if (count_++ >= room_)
            return;
        k42mcx_block &copy = blocks_[count_ - 1] = block;
        std::copy(frames.begin(), frames.end(), copy.frames);
        copy.frame_count = static_cast<unsigned>(frames.size());
    }

    k42mcx_block *const blocks_;
    const size_t room_;
    size_t count_ = 0;
};

void copy_recorded(BlockCopies &copies, uint64_t from, uint64_t to) {
    ChosenRecords records([=](const Record &record) {
        return is_reported(record) && record.order() >= from && record.order() < to;
    });
    while (const Record *record = records.next())
        copies.add(*record, "LK");
}

void copy_damaged(BlockCopies &copies) {
    GuardInspector inspector;
    ChosenRecords records(
        [&](const Record &record) { return inspector.defect(record) != K42MC_DEFECT_NONE; });
    while (const Record *record = records.next())
        copies.add(*record, k42mc_defect_desc[inspector.defect(*record)]);
}

void copy_written_late(BlockCopies &copies) {
    GuardInspector inspector;
    auto look_at = [&](const RetiredBlock &block) {
        if (ptrdiff_t change; is_changed(block, change, inspector))
            copies.add(block, inspector.readable(reinterpret_cast<uintptr_t>(block.release.file), 1));
        return true;
    };
    each_retired(look_at);
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

size_t k42mcx_blocks(uint64_t from, uint64_t to, k42mcx_block *blocks, size_t room) {
    static constexpr const char *name = "k42mcx_blocks";
    BlockCopies copies(blocks, room);
    const ControlLock lock(name);
    if (lock && registry_exists())
        copy_recorded(copies, from, to);
    else if (lock)
        say_not_initialized(name);
    return copies.count();
}

size_t k42mcx_damaged(k42mcx_block *blocks, size_t room) {
    static constexpr const char *name = "k42mcx_damaged";
    BlockCopies copies(blocks, room);
    const ControlLock lock(name);
    if (lock && registry_exists()) {
        copy_damaged(copies);
        copy_written_late(copies);
    } else if (lock) {
        say_not_initialized(name);
    }
    return copies.count();
}

size_t k42mcx_symbol(const void *frame, char *text, size_t size) {
    if (size == 0)
        return 0;
    const size_t length = platform::symbol_line(frame, {text, size}); // its last character ends the line
    const size_t shown = length != 0 ? length - 1 : 0;
    text[shown] = '\0';
    return shown;
}

K42MC_EXPORT(k42mcx_blocks);
K42MC_EXPORT(k42mcx_damaged);
K42MC_EXPORT(k42mcx_symbol);
