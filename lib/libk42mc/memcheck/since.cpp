#include "memcheck/block_line.h"
#include "memcheck/by_age.h"
#include "memcheck/control_lock.h"
#include "memcheck/registry.h"
#include "memcheck/sink.h"

#include <k42mc/extra.h>

namespace k42mc::internal {
namespace {

size_t put_blocks_since(TextOutput &out, uint64_t mark, size_t &bytes) {
    SymbolLines lines;
    size_t count = 0;
    ChosenRecords records(
        [=](const Record &record) { return is_reported(record) && record.order() >= mark; });
    while (const Record *record = records.next()) {
        const RecordedBlock block(*record, gMCCycle);
        put_block(out, block, "LK");
        put_allocation_trace(out, block.site.trace(), &lines);
        bytes += record->size;
        ++count;
    }
    return count;
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

uint64_t k42mcx_mark() {
    return recorded_so_far();
}

size_t k42mcx_since(uint64_t mark, size_t *bytes) {
    static constexpr const char *name = "k42mcx_since";
    size_t sum = 0, count = 0;
    const ControlLock lock(name);
    if (lock && registry_exists())
        count = put_blocks_since(*SinkText(), mark, sum);
    else if (lock)
        say_not_initialized(name);
    if (bytes != nullptr)
        *bytes = sum;
    return count;
}

K42MC_EXPORT(k42mcx_mark);
K42MC_EXPORT(k42mcx_since);
