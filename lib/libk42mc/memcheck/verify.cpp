#include "memcheck/block_line.h"
#include "memcheck/by_age.h"
#include "memcheck/control_lock.h"
#include "memcheck/damage.h"
#include "memcheck/late_write.h"
#include "memcheck/quarantine.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

void put_damage(TextOutput &out, const RecordedBlock &block, int defect, SymbolLines &lines) {
    put_block(out, block, k42mc_defect_desc[defect]);
    put_allocation_trace(out, block.site.trace(), &lines);
}

unsigned put_damaged_blocks(TextOutput &out) {
    GuardInspector inspector;
    SymbolLines lines;
    unsigned damaged = 0;
    const auto is_damaged = [&](const Record &record) {
        return inspector.defect(record) != K42MC_DEFECT_NONE;
    };
    ChosenRecords records(is_damaged);
    while (const Record *record = records.next()) {
        put_damage(out, RecordedBlock(*record, gMCCycle), inspector.defect(*record), lines);
        ++damaged;
    }
    return damaged;
}

unsigned put_late_writes(TextOutput &out) {
    GuardInspector inspector;
    unsigned written = 0;
    auto look_at = [&](const RetiredBlock &block) {
        if (ptrdiff_t change; is_changed(block, change, inspector)) {
            put_late_write(out, block);
            ++written;
        }
        return true;
    };
    each_retired(look_at);
    return written;
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

unsigned k42mcx_verify() {
    static constexpr const char *name = "k42mcx_verify";
    const ControlLock lock(name);
    if (!lock)
        return 0;
    if (!registry_exists()) {
        say_not_initialized(name);
        return 0;
    }
    SinkText out;
    const unsigned damaged = put_damaged_blocks(*out);
    return damaged + put_late_writes(*out);
}

K42MC_EXPORT(k42mcx_verify);
