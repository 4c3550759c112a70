// Looks at the guards of all blocks in use, to find damage ahead of their release.
#include "memcheck/verify.h"
#include "k42mc_debug.h"
#include "memcheck/control_lock.h"
#include "memcheck/sink.h"
#include "platform/platform.h"

#include <inttypes.h>
#include <string.h>

namespace k42mc {

namespace {

constexpr const char *function_name = "k42mcx_verify";
constexpr size_t guard_bytes = K42MC_GUARD_OVERHEAD / 2;

// Pages that could be read in this pass, each in the place that its number leads to: the heap of most
// processes fits. Static, since threads may have small stacks.
constexpr size_t remembered_pages = 4096;
constinit uintptr_t gReadablePages[remembered_pages] = {};

bool page_readable(uintptr_t page, uintptr_t page_size) {
    uintptr_t &known = gReadablePages[page % remembered_pages];
    if (known != page && !platform::readable(reinterpret_cast<const void *>(page * page_size), 1))
        return false;
    known = page;
    return true;
}

// Blocks may be gone with the memory that they were in, such as a manager's segment that was detached.
bool readable(uintptr_t address, size_t size, uintptr_t page_size) {
    for (uintptr_t page = address / page_size; page <= (address + size - 1) / page_size; ++page)
        if (!page_readable(page, page_size))
            return false;
    return true;
}

void print_damage(const MCAllocRec &record, int defect) {
    const MCFilterKey &key = record.key;
    FILE *const out = MCSink();
    fprintf(out, "%s:%d:%s:%s:0x%0" PRIXPTR ":%zu:%u\n", key.file, key.line, k42mc_defect_desc[defect],
            gAllocatorType[key.type], record.address, key.size, record.cycles);
    fflush(out);
    if (record.frameCount > 0)
        write_backtrace(out, "Backtrace of the allocation:\n", record.frames,
                        static_cast<int>(record.frameCount));
}

unsigned verify_blocks() {
    start_examination();
    unsigned damaged = 0;
    // Oldest first, as in reports: neighbours in the list mostly have neighbouring addresses.
    for (const MCAllocRec &record : RecordList(gMCList)) {
        const int defect = damage_of(record);
        if (defect == K42MC_DEFECT_NONE)
            continue;
        print_damage(record, defect);
        ++damaged;
    }
    return damaged;
}

} // namespace

void start_examination() {
    memset(gReadablePages, 0, sizeof gReadablePages);
}

int damage_of(const MCAllocRec &record) {
    const uintptr_t page_size = platform::page_size();
    if (!readable(record.address - guard_bytes, guard_bytes, page_size) ||
        !readable(record.address + record.key.size, guard_bytes, page_size))
        return K42MC_DEFECT_WU;
    const auto *const user = reinterpret_cast<const void *>(record.address);
    return guard_damage(record.key.type + 1u, user, record.key.size);
}

} // namespace k42mc

using namespace k42mc;

unsigned k42mcx_verify() {
    const ControlLock lock(function_name);
    if (!lock)
        return 0;
    if (gMCTree == nullptr) {
        say_not_initialized(function_name);
        return 0;
    }
    return verify_blocks();
}

void k42mcx_at_exit(unsigned wishes) {
    const ControlLock lock("k42mcx_at_exit");
    if (lock)
        gMCExitWishes = wishes;
}

K42MC_EXPORT(k42mcx_verify);
K42MC_EXPORT(k42mcx_at_exit);
