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

void print_record(const MCAllocRec &record) {
    fprintf(stderr, "%s:%d:%s:0x%0" PRIXPTR ":%zu:%u\n", record.key.file, record.key.line,
            gAllocatorType[record.key.type], record.address, record.key.size, record.cycles);
    write_allocation_trace(stderr, record.frames, record.frameCount);
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
    const auto *record = static_cast<MCAllocRec *>(PTSearch(gMCTree, &address));
    if (record == nullptr) {
        fprintf(stderr, "Allocation 0x%0" PRIXPTR " not known\n", address);
        return 1;
    }
    print_record(*record);
    return 0;
}

K42MC_EXPORT(MCCheck);
