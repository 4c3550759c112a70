#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "MCReport";

// More blocks than this do not go to a terminal.
constexpr uint32_t most_for_terminal = 199;

// The limit of the report in progress, for the visit callback.
constinit uint32_t gMCReportLimit = 0;

void MCReportLeak(void *element) {
    auto *record = static_cast<MCAllocRec *>(element);
    const MCFilterKey &key = record->key;
    ++record->cycles;
    if (record->cycles >= gMCReportLimit)
        print_block(MCSink(), *record, "LK");
    if (record->cycles == 1) {
        gMCHeldCycleSum.add(key.size);
        gMCHeldCycle[key.type].add(key.size);
    }
    gMCHeldSinceResetSum.add(key.size);
    gMCHeldSinceReset[key.type].add(key.size);
}

uint32_t live_allocations() {
    uint32_t live = 0;
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type)
        live += static_cast<uint32_t>(gMCAllocSinceReset[type].count) -
                static_cast<uint32_t>(gMCFreeSinceReset[type].count);
    return live;
}

// Moves a report that is too long for the terminal to a file. Returns false when no file can be opened;
// the sink is standard error then, as before.
bool leave_terminal() {
    fprintf(stderr, "%s: Too many reports for terminal: switching to file\n", function_name);
    MCOpenSink(1);
    if (gMCReportFile != nullptr && gMCReportFile != stderr)
        return true;
    gMCReportFile = stderr;
    fprintf(stderr, "%s: Failed to open report file\n", function_name);
    return false;
}

void print_counters(FILE *out, const MCCounter *held, const MCCounter *allocated,
                    const MCCounter *freed) {
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type)
        fprintf(out, "%s: %10llu(%llu); +%llu(%llu), -%llu(%llu)\n", gAllocatorType[type],
                held[type].bytes, held[type].count, allocated[type].bytes, allocated[type].count,
                freed[type].bytes, freed[type].count);
}

void print_report(FILE *out, uint32_t limit) {
    fprintf(out, "-----------<cycle %u>-----------\n{\n", gMCCycle);
    gMCReportLimit = limit;
    DLVisit(gMCList, DL_FORWARD, MCReportLeak);
    fprintf(out, "\n#### This cycle: %llu bytes held by %llu allocations ####\n", gMCHeldCycleSum.bytes,
            gMCHeldCycleSum.count);
    print_counters(out, gMCHeldCycle, gMCAllocCycle, gMCFreeCycle);
    fprintf(out, "\n#### Since reset: %llu bytes held by %llu allocations ####\n",
            gMCHeldSinceResetSum.bytes, gMCHeldSinceResetSum.count);
    print_counters(out, gMCHeldSinceReset, gMCAllocSinceReset, gMCFreeSinceReset);
    fputs("}\n", out);
    fflush(out);
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

void MCReport(uint32_t limit) {
    limit = __builtin_bswap32(limit);
    const ControlLock lock(function_name);
    if (!lock)
        return;
    if (gMCTree == nullptr) {
        say_not_initialized(function_name);
        return;
    }
    const uint32_t next = gMCCycle + 1;
    if (next >= limit && MCSink() == stderr && live_allocations() > most_for_terminal &&
        !leave_terminal())
        return;
    gMCCycle = next;
    print_report(MCSink(), limit);
    MCResetCycleStats();
}

K42MC_EXPORT(MCReport);
