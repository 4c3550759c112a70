#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/damage.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

void put_damage(TextOutput &out, const MCAllocRec &record, int defect) {
    put_block(out, record, k42mc_defect_desc[defect]);
    put_allocation_trace(out, record.trace());
}

unsigned put_damaged_blocks(TextOutput &out) {
    GuardInspector inspector;
    unsigned damaged = 0;
    for (const MCAllocRec &record : RecordList(gMCList)) {
        const int defect = inspector.defect(record);
        if (defect != K42MC_DEFECT_NONE) [[unlikely]] {
            put_damage(out, record, defect);
            ++damaged;
        }
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
    if (gMCTree == nullptr) {
        say_not_initialized(name);
        return 0;
    }
    return put_damaged_blocks(*SinkText());
}

K42MC_EXPORT(k42mcx_verify);
