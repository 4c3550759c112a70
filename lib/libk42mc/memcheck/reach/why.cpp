#include "base/printing.h"
#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/reach/chain.h"
#include "memcheck/reach/findings.h"
#include "memcheck/reach/inspection.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "k42mcx_why";

// ---- What is printed ----

// Of a long chain, both ends.
void put_links(TextOutput &out, const Chain &chain) {
    constexpr size_t most_at_end = 16;
    for (size_t i = 0; i < chain.count; ++i) {
        if (i == most_at_end && chain.count > 2 * most_at_end) {
            out.print("... %zu more blocks ...\n", chain.count - 2 * most_at_end);
            i = chain.count - most_at_end;
        }
        const Link &link = chain.links[i];
        const Record &record = record_at(link.number);
        if (record.order() != link.order)
            out.put("a block that has been released since\n");
        else
            put_block(out, RecordedBlock(record, gMCCycle), chain.is_held ? "HB" : "LB");
        if (i + 1 < chain.count)
            out.print("  from its byte %lu on: leads to\n", static_cast<unsigned long>(link.offset));
    }
}

void put_chain(TextOutput &out, const Chain &chain) {
    if (chain.is_held) {
        out.print("%s leads to\n", chain.root);
    } else {
        out.put("Nothing that is held leads to\n");
    }
    put_links(out, chain);
    const Link &last = chain.links[chain.count - 1];
    if (const Record &record = record_at(last.number); record.order() == last.order)
        put_allocation_trace(out, RecordedBlock(record, gMCCycle).site.trace());
}

// ---- The search ----

const char *search(const Caller &caller, uintptr_t address, Findings<Chain> &chain) {
    auto is_needed = [&] { return chain.make(); };
    auto look = [&](const Moment &moment) {
        Search search(moment, Search::Note::origins_callers_last);
        if (search.run())
            find_chain(search, moment, address, *chain);
    };
    const char *const obstacle = inspect(function_name, caller, is_needed, look);
    if (obstacle != nullptr)
        return obstacle;
    if (!chain || !chain->is_complete)
        return Search::no_result;
    return chain->is_recorded ? nullptr : "no recorded block is there";
}

// Apart, so that nothing of it lies on the part of the stack that counts as the caller's.
[[gnu::noinline]] int report_why(const Caller &caller, uintptr_t address) {
    Findings<Chain> chain;
    const char *obstacle = search(caller, address, chain);
    if (obstacle == nullptr) {
        const ControlLock lock(function_name);
        if (lock && chain.are_current()) {
            put_chain(*SinkText(), *chain);
            return chain->is_held ? 0 : 1;
        }
        obstacle = "MC has been switched off meanwhile";
    }
    StandardErrorText()->print("%s: ERROR: %s\n", function_name, obstacle);
    return -1;
}

} // namespace
} // namespace k42mc::internal

// The address that is asked for must not hold its block.
int k42mcx_why(const void *address) {
    using namespace k42mc::internal;
    Caller caller = Caller::here();
    caller.step_out();
    const int held = report_why(caller, reinterpret_cast<uintptr_t>(address));
    platform::clear_unused_stack();
    return held;
}

K42MC_EXPORT(k42mcx_why);
