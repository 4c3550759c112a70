#include "memcheck/control_lock.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

#include <inttypes.h>

namespace k42mc::internal {
namespace {

uintptr_t reverse_bytes(uintptr_t address) {
    if constexpr (sizeof address == sizeof(uint64_t))
        return __builtin_bswap64(address);
    else
        return __builtin_bswap32(address);
}

void put_record(TextOutput &out, const MCAllocRec &record) {
    out.put(record.key.file);
    out.print(":%d:%s:0x%0" PRIXPTR ":%zu:%u\n", record.key.line, gAllocatorType[record.key.type],
              record.address, record.key.size, record.cycles);
    put_allocation_trace(out, record.trace());
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

uint32_t MCCheck(uintptr_t address) {
    static constexpr const char *name = "MCCheck";
    address = reverse_bytes(address);
    const ControlLock lock(name);
    if (!lock)
        return 1;
    if (gMCTree == nullptr) {
        say_not_initialized(name);
        return 1;
    }
    if (address == 0)
        return 0;
    StandardErrorText out;
    const MCAllocRec *record = RecordTree(gMCTree).search(address);
    if (record == nullptr) {
        out->print("Allocation 0x%0" PRIXPTR " not known\n", address);
        return 1;
    }
    put_record(*out, *record);
    return 0;
}

K42MC_EXPORT(MCCheck);
