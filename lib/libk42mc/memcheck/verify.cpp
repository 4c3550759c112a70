#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/damage.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

void print_damage(const MCAllocRec &record, int defect) {
    FILE *out = MCSink();
    print_block(out, record, k42mc_defect_desc[defect]);
    write_allocation_trace(out, record.frames, record.frameCount);
}

unsigned print_damaged_blocks() {
    GuardInspector inspector;
    unsigned damaged = 0;
    const auto *record = static_cast<MCAllocRec *>(DLFirst(gMCList));
    for (; record != nullptr; record = static_cast<MCAllocRec *>(DLNext(gMCList, record))) {
        const int defect = inspector.defect(*record);
        if (defect != K42MC_DEFECT_NONE) [[unlikely]] {
            print_damage(*record, defect);
            ++damaged;
        }
    }
    fflush(MCSink());
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
    return print_damaged_blocks();
}

K42MC_EXPORT(k42mcx_verify);
