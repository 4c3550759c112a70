#include "memcheck/control_lock.h"
#include "memcheck/registry.h"
#include "memcheck/sink.h"

#include <inttypes.h>

namespace k42mc::internal {
namespace {

uintptr_t reverse_bytes(uintptr_t address) {
    if constexpr (sizeof address == sizeof(uint64_t))
        return __builtin_bswap64(address);
    else
        return __builtin_bswap32(address);
}

void put_record(TextOutput &out, const RecordedBlock &block) {
    out.put(block.site.file);
    out.print(":%d:%s:0x%0" PRIXPTR ":%zu:%u\n", block.site.line, gAllocatorType[block.site.type],
              block.address, block.size, block.age);
    put_allocation_trace(out, block.site.trace());
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
    if (!registry_exists()) {
        say_not_initialized(name);
        return 1;
    }
    if (address == 0)
        return 0;
    StandardErrorText out;
    const Record *record = find_record(address);
    if (record == nullptr) {
        out->print("Allocation 0x%0" PRIXPTR " not known\n", address);
        return 1;
    }
    put_record(*out, RecordedBlock(*record, gMCCycle));
    return 0;
}

K42MC_EXPORT(MCCheck);
