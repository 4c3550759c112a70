#include "memcheck/report.h"

#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "MCReport";

// More blocks than this do not go to a terminal.
constexpr uint32_t most_for_terminal = 199;

// Ages a record, and lists it if it has survived enough reports.
void MCReportLeak(TextOutput &out, MCAllocRec &record, uint32_t limit) {
    const MCFilterKey &key = record.key;
    ++record.cycles;
    if (record.cycles >= limit)
        put_block(out, record, "LK");
    if (record.cycles == 1) {
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
    StandardErrorText()->print("%s: Too many reports for terminal: switching to file\n", function_name);
    MCOpenSink(1);
    if (sink_is_open())
        return true;
    stay_on_terminal();
    StandardErrorText()->print("%s: Failed to open report file\n", function_name);
    return false;
}

void put_counters(TextOutput &out, const MCCounter *held, const MCCounter *allocated,
                  const MCCounter *freed) {
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type)
        out.print("%s: %10llu(%llu); +%llu(%llu), -%llu(%llu)\n", gAllocatorType[type], held[type].bytes,
                  held[type].count, allocated[type].bytes, allocated[type].count, freed[type].bytes,
                  freed[type].count);
}

void put_report(TextOutput &out, uint32_t limit) {
    out.print("-----------<cycle %u>-----------\n{\n", gMCCycle);
    for (MCAllocRec &record : RecordList(gMCList))
        if (!record.in_hand)
            MCReportLeak(out, record, limit);
    out.print("\n#### This cycle: %llu bytes held by %llu allocations ####\n", gMCHeldCycleSum.bytes,
              gMCHeldCycleSum.count);
    put_counters(out, gMCHeldCycle, gMCAllocCycle, gMCFreeCycle);
    out.print("\n#### Since reset: %llu bytes held by %llu allocations ####\n",
              gMCHeldSinceResetSum.bytes, gMCHeldSinceResetSum.count);
    put_counters(out, gMCHeldSinceReset, gMCAllocSinceReset, gMCFreeSinceReset);
    out.put("}\n");
}

} // namespace

void report(uint32_t limit) {
    const ControlLock lock(function_name);
    if (!lock)
        return;
    if (gMCTree == nullptr) {
        say_not_initialized(function_name);
        return;
    }
    const uint32_t next = gMCCycle + 1;
    if (next >= limit && sink_is_terminal() && live_allocations() > most_for_terminal &&
        !leave_terminal())
        return;
    gMCCycle = next;
    put_report(*SinkText(), limit);
    MCResetCycleStats();
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void MCReport(uint32_t limit) {
    report(__builtin_bswap32(limit));
}

K42MC_EXPORT(MCReport);
