#include "base/printing.h"
#include "memcheck/block_line.h"
#include "memcheck/control_lock.h"
#include "memcheck/reach/lost_blocks.h"
#include "memcheck/reach/moment.h"
#include "memcheck/registry.h"
#include "memcheck/sink.h"

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "k42mcx_lost";

size_t put_lost_blocks(TextOutput &out, const LostBlocks &lost) {
    SymbolLines lines;
    size_t count = 0;
    lost.each([&](const Record &record, bool is_indirect) {
        const RecordedBlock block(record, gMCCycle);
        put_block(out, block, is_indirect ? "LI" : "LB");
        put_allocation_trace(out, block.site.trace(), &lines);
        ++count;
    });
    return count;
}

// Apart, so that nothing of it lies on the part of the stack that counts as the caller's.
[[gnu::noinline]] size_t report_lost(const Caller &caller, uint32_t limit) {
    LostBlocks lost;
    if (const char *obstacle = lost.search(function_name, caller, limit, LostBlocks::Wanted::lost)) {
        StandardErrorText()->print("%s: ERROR: %s\n", function_name, obstacle);
        return 0;
    }
    const ControlLock lock(function_name);
    return lock && registry_exists() ? put_lost_blocks(*SinkText(), lost) : 0;
}

} // namespace
} // namespace k42mc::internal

// The addresses that were printed must not hold their blocks the next time.
size_t k42mcx_lost(uint32_t limit) {
    using namespace k42mc::internal;
    const size_t count = report_lost(Caller::here(), limit);
    platform::clear_unused_stack();
    return count;
}

K42MC_EXPORT(k42mcx_lost);
