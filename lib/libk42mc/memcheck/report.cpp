#include "memcheck/report.h"

#include "memcheck/block_line.h"
#include "memcheck/by_age.h"
#include "memcheck/control_lock.h"
#include "memcheck/lane.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "MCReport";

// More blocks than this do not go to a terminal.
constexpr uint32_t most_for_terminal = 199;

// What the report in progress has met.
struct Held {
    MCCounter by_type[MC_ALLOCATOR_TYPES];

    MCCounter sum() const {
        MCCounter total;
        for (const MCCounter &counter : by_type)
            total += counter;
        return total;
    }
};

uint32_t live_allocations() {
    const Traffic traffic = total_traffic().since(gMCTrafficAtReset);
    uint32_t live = 0;
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type)
        live += static_cast<uint32_t>(traffic.allocated[type].count) -
                static_cast<uint32_t>(traffic.freed[type].count);
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

void put_counters(TextOutput &out, const Held &held, const Traffic &traffic) {
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
        const MCCounter &now = held.by_type[type], &allocated = traffic.allocated[type],
                        &freed = traffic.freed[type];
        out.print("%s: %10llu(%llu); +%llu(%llu), -%llu(%llu)\n", gAllocatorType[type], now.bytes,
                  now.count, allocated.bytes, allocated.count, freed.bytes, freed.count);
    }
}

void put_totals(TextOutput &out, const char *since, const Held &held, const Traffic &traffic) {
    const MCCounter sum = held.sum();
    out.print("\n#### %s: %llu bytes held by %llu allocations ####\n", since, sum.bytes, sum.count);
    put_counters(out, held, traffic);
}

void put_report(TextOutput &out, uint32_t limit) {
    out.print("-----------<cycle %u>-----------\n{\n", gMCCycle);
    Held since_report, since_reset; // the former: what no report has met before
    ChosenRecords records([&](const Record &record) {
        if (!is_reported(record))
            return false;
        const uint32_t age = record.age(gMCCycle);
        since_reset.by_type[record.type()].add(record.size);
        if (age == 1)
            since_report.by_type[record.type()].add(record.size);
        return age >= limit;
    });
    while (const Record *record = records.next())
        put_block(out, RecordedBlock(*record, gMCCycle), "LK");
    const Traffic traffic = total_traffic();
    put_totals(out, "This cycle", since_report, traffic.since(gMCTrafficAtReport));
    put_totals(out, "Since reset", since_reset, traffic.since(gMCTrafficAtReset));
    out.put("}\n");
}

// What comes next is the next cycle's.
void end_cycle() {
    MCResetCycleStats();
    if (sites_need_sweep())
        sweep_sites();
}

} // namespace

void report(uint32_t limit) {
    const ControlLock lock(function_name);
    if (!lock)
        return;
    if (!registry_exists()) {
        say_not_initialized(function_name);
        return;
    }
    const uint32_t next = gMCCycle + 1;
    if (next >= limit && sink_is_terminal() && live_allocations() > most_for_terminal &&
        !leave_terminal())
        return;
    gMCCycle = next;
    put_report(*SinkText(), limit);
    end_cycle();
}

void count_cycle() {
    const ControlLock lock(function_name);
    if (!lock || !registry_exists())
        return;
    ++gMCCycle;
    end_cycle();
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void MCReport(uint32_t limit) {
    report(__builtin_bswap32(limit));
}

K42MC_EXPORT(MCReport);
