#include "memcheck/block_line.h"
#include "memcheck/by_age.h"
#include "memcheck/control_lock.h"
#include "memcheck/damage.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

void put_damage(TextOutput &out, const RecordedBlock &block, int defect) {
    put_block(out, block, k42mc_defect_desc[defect]);
    put_allocation_trace(out, block.site.trace());
}

unsigned put_damaged_blocks(TextOutput &out) {
    GuardInspector inspector;
    unsigned damaged = 0;
    const auto is_damaged = [&](const Record &record) {
        return inspector.defect(record) != K42MC_DEFECT_NONE;
    };
    ChosenRecords records(is_damaged);
    while (const Record *record = records.next()) {
        put_damage(out, RecordedBlock(*record, gMCCycle), inspector.defect(*record));
        ++damaged;
    }
    return damaged;
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
    return put_damaged_blocks(*SinkText());
}

K42MC_EXPORT(k42mcx_verify);
