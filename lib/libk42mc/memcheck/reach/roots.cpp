#include "memcheck/reach/roots.h"

#include "memcheck/lane.h"
#include "memcheck/quarantine.h"
#include "memcheck/reach/annotations.h"
#include "memcheck/site_table.h"
#include "pages/pool.h"
#include "platform/signal_context.h"
#include "platform/stack.h"
#include "platform/trace_cache.h"

namespace k42mc::internal {
namespace {

// Below its stack pointer, and the red zone under it where the thread is not at a call, nothing of a stack is in use:
// unless a handler runs on a stack of its own, which may itself lie on the thread's.
constexpr uintptr_t red_zone = 128;

// Sanitizers reserve as much for notes of their own.
constexpr uintptr_t largest = static_cast<uintptr_t>(uint64_t{1} << (sizeof(void *) == 8 ? 40 : 31));

// What cannot be written to may have been written to before.
bool counts(const platform::Mapping &mapping) {
    return mapping.readable && !mapping.is_apart && mapping.end - mapping.begin < largest &&
           (mapping.writable || !mapping.shared);
}

// Memory that the program has given a thread as its stack has none, and is the program's again.
bool begins_with_guard(const platform::StackMemory &stack) {
    return !platform::readable(reinterpret_cast<const void *>(stack.begin),
                               1); // NOLINT(performance-no-int-to-ptr)
}

size_t site_chunk_count() {
    return most_sites() / SiteChunk::room;
}

size_t most_left_out(const Moment &moment) {
    constexpr size_t kept_stacks = 1024, lanes = 2048, of_page_blocks = 2;
    return of_page_blocks + moment.threads.size() + gMCChunkCount + site_chunk_count() +
           quarantine_chunk_count() + platform::TraceCache::most + kept_stacks + lanes;
}

} // namespace

size_t Roots::bytes_for(const Moment &moment) {
    return most_left_out(moment) * sizeof(Range) + HeapGaps::bytes_for(moment);
}

Roots::Roots(WorkMemory &memory, const Moment &moment, const BlockMap &blocks,
             platform::GuardedCopies &copies, platform::SharedPages &inherited)
    : blocks_(blocks), left_out_(memory.take<Range>(most_left_out(moment))),
      gaps_(memory, moment, blocks, copies, inherited) {
    left_out_.add(memory.begin(), memory.end());
    const Range noted = memory_of_added_roots();
    left_out_.add(noted.begin, noted.end);
    for (size_t i = 0; i < platform::TraceCache::most; ++i) {
        if (const platform::TraceCache *const cache = platform::TraceCache::number(i))
            left_out_.add(reinterpret_cast<uintptr_t>(cache), reinterpret_cast<uintptr_t>(cache + 1));
    }
    for (uint32_t i = 0; i < gMCChunkCount; ++i)
        left_out_.add(reinterpret_cast<uintptr_t>(gMCChunks[i]),
                      reinterpret_cast<uintptr_t>(gMCChunks[i] + 1));
    left_out_.add(page_range.begin, page_range.begin + page_range.size);
    const std::span<const std::byte> known = memory_of_page_blocks();
    left_out_.add(reinterpret_cast<uintptr_t>(known.data()),
                  reinterpret_cast<uintptr_t>(known.data() + known.size()));
    // On 32 bits, a site's hash or a count of bytes may look like an address.
    for (const SiteChunk *sites : std::span(gMCSites).first(site_chunk_count()))
        left_out_.add(reinterpret_cast<uintptr_t>(sites), reinterpret_cast<uintptr_t>(sites + 1));
    auto leave_out = [&](const void *begin, size_t size) {
        left_out_.add(reinterpret_cast<uintptr_t>(begin), reinterpret_cast<uintptr_t>(begin) + size);
    };
    each_quarantine_chunk(leave_out);
    each_lanes_numbers(leave_out);
    if (!platform::is_on_signal_stack())
        leave_out_below(moment.caller.stack_pointer, moment.caller.control_block);
    for (const platform::StoppedThread &thread : moment.threads) {
        if (thread.context == nullptr)
            continue;
        const platform::SavedRegisters saved = platform::saved_registers(thread.context);
        if (!saved.is_on_signal_stack)
            leave_out_below(saved.stack_pointer - red_zone, thread.control_block);
    }
    for (const Visitor *visitor = all_visitors; visitor != nullptr; visitor = visitor->next) {
        const platform::StackMemory kept = platform::kept_stack_of(visitor->thread);
        if (begins_with_guard(kept))
            left_out_.add(kept.begin, kept.end);
    }
    left_out_.sort();
}

void Roots::leave_out_below(uintptr_t stack_in_use, uintptr_t control_block) {
    const platform::StackMemory stack = platform::stack_memory_of(control_block);
    if (stack.end == 0)
        first_stack_in_use_ = stack_in_use;
    else if (stack_in_use > stack.begin && stack_in_use < stack.end)
        left_out_.add(stack.begin, stack_in_use);
}

Range Roots::in_use(const platform::Mapping &mapping) const {
    const bool is_left_out = mapping.is_first_stack && first_stack_in_use_ > mapping.begin &&
                             first_stack_in_use_ < mapping.end;
    return {is_left_out ? first_stack_in_use_ : mapping.begin, mapping.end};
}

void Roots::visit_mapping(const platform::Mapping &mapping, VisitRange visit) {
    auto visit_range = [&](Range range) { visit(range, mapping); };
    left_out_.each_piece_outside(in_use(mapping), [&](Range piece) { gaps_.each(piece, visit_range); });
}

// Whatever else lies there. They are in order.
void Roots::visit_added(const platform::Mapping &mapping, VisitRange visit) {
    for (const Range &root : added_roots()) {
        if (root.begin >= mapping.end)
            break;
        const Range range = {std::max(root.begin, mapping.begin), std::min(root.end, mapping.end)};
        if (range.begin < range.end)
            visit(range, mapping);
    }
}

// Blocks that have pages of their own, and that nobody has recorded. Between them there is nothing.
void Roots::visit_page_blocks(VisitRange visit) const {
    for_each_page_block([&](const PageBlock &block) {
        const Range range = {block.address, block.address + block.size};
        const uint32_t next = blocks_.first_from(range.begin);
        if (next == blocks_.size() || blocks_[next].begin != range.begin)
            visit(range, {.begin = block.open_begin,
                          .end = block.open_end,
                          .readable = true,
                          .writable = true,
                          .shared = false,
                          .from_file = false,
                          .is_first_stack = false,
                          .is_apart = false});
    });
}

bool Roots::each(VisitRange visit) {
    const std::span<Range> added = added_roots();
    std::sort(added.begin(), added.end(),
              [](const Range &a, const Range &b) { return a.begin < b.begin; });
    platform::MemoryMap map;
    for (platform::Mapping mapping; map.next(mapping);) {
        if (counts(mapping))
            visit_mapping(mapping, visit);
        if (mapping.readable)
            visit_added(mapping, visit);
    }
    visit_page_blocks(visit);
    return map.is_whole();
}

} // namespace k42mc::internal
