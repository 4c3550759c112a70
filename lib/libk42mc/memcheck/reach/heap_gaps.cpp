#include "memcheck/reach/heap_gaps.h"

#include "k42mc_debug.h"

namespace k42mc::internal {

using platform::HeapChunk;

HeapGaps::HeapGaps(WorkMemory &memory, const Moment &moment, const BlockMap &blocks,
                   platform::GuardedCopies &copies, platform::SharedPages &inherited)
    : blocks_(blocks), copies_(copies), inherited_(inherited),
      kept_(memory.take<uintptr_t>(most_kept(moment))) {
    take_kept(moment);
}

// More than a thread keeps as a rule.
size_t HeapGaps::most_kept(const Moment &moment) {
    constexpr size_t most_by_thread = 1024;
    return (moment.threads.size() + 1) * most_by_thread;
}

// What there is no room for counts as in use.
void HeapGaps::take_kept(const Moment &moment) {
    size_t count = 0;
    const auto take = [&](uintptr_t memory) {
        if (count < kept_.size())
            kept_[count++] = memory;
    };
    moment.caches.each_kept(copies_, moment.caller.control_block, take);
    for (const platform::StoppedThread &thread : moment.threads)
        if (thread.context != nullptr)
            moment.caches.each_kept(copies_, thread.control_block, take);
    kept_ = kept_.first(count);
    std::sort(kept_.begin(), kept_.end());
}

bool HeapGaps::is_inherited(uintptr_t begin, uintptr_t end) const {
    for (; begin < end; begin = (begin & -smallest_page) + smallest_page)
        if (!inherited_.has(begin))
            return false;
    return true;
}

bool HeapGaps::is_free(const HeapChunk &chunk) const {
    return chunk.is_free(copies_) || std::binary_search(kept_.begin(), kept_.end(), chunk.memory());
}

// With its guards, if it has any.
Range HeapGaps::raw_memory_around(const Block &block) const {
    uintptr_t header[K42MC_GUARD_WORDS];
    if (copies_.copy(block.begin - sizeof header, header)) {
        const RawMemory raw = raw_memory_of(block.begin, header);
        if (raw.size >= block.end - block.begin && raw.begin < block.begin)
            return {raw.begin, raw.begin + raw.size};
    }
    return {block.begin, block.end};
}

Range HeapGaps::memory_of(Neighbour &neighbour) const {
    if (!neighbour.memory_)
        neighbour.memory_ = raw_memory_around(*neighbour.block_);
    return *neighbour.memory_;
}

// 0 where none is known.
uintptr_t HeapGaps::chunk_behind(Range memory, uintptr_t limit) const {
    HeapChunk chunk = HeapChunk::of(memory.begin);
    return chunk.read(copies_, limit) && chunk.memory_end() >= memory.end ? chunk.end() : 0;
}

// As far as one leads to the next; `limit` where they lead just there.
uintptr_t HeapGaps::end_of_chunks(uintptr_t first, uintptr_t limit) const {
    HeapChunk chunk = HeapChunk::at(first);
    while (chunk.begin() < limit && chunk.read(copies_, limit))
        chunk = HeapChunk::at(chunk.end());
    return chunk.begin();
}

// Ahead of the first chunk, a heap begins with what the allocator knows of it. 0 where no chunks follow: where some lead
// far, and not to the end, others only lead to the same ones.
uintptr_t HeapGaps::first_chunk_in(uintptr_t begin, uintptr_t end) const {
    constexpr uintptr_t longest_beginning = smallest_page, far = 1u << 20;
    for (uintptr_t at = HeapChunk::first_place(begin); at < end && at - begin < longest_beginning;
         at = HeapChunk::next_place(at)) {
        const uintptr_t reached = end_of_chunks(at, end);
        if (reached == end)
            return at;
        if (reached - begin > far)
            break;
    }
    return 0;
}

// The last chunk of a heap is what was never handed out, or not since.
void HeapGaps::each_in_use(const Gap &gap, uintptr_t end, bool ends_heap,
                           FunctionRef<void(Range)> action) {
    if (gap.first_chunk == 0 || end_of_chunks(gap.first_chunk, end) != end) {
        if (gap.begin < gap.end)
            action({gap.begin, gap.end});
        return;
    }
    for (HeapChunk chunk = HeapChunk::at(gap.first_chunk); chunk.begin() < end;
         chunk = HeapChunk::at(chunk.end())) {
        if (!chunk.read(copies_, end))
            return;
        const bool is_last = ends_heap && chunk.end() == end;
        if (!is_last && !is_free(chunk))
            action({chunk.begin(), chunk.end()});
    }
}

// Between two blocks, or the piece's ends. What a child has inherited whole is passed by without a look at the blocks.
void HeapGaps::each_between(Neighbour &former, Neighbour &next, Range piece,
                            FunctionRef<void(Range)> action) {
    if (is_inherited(former.is_none() ? piece.begin : former.block_end(),
                     next.is_none() ? piece.end : next.block_begin()))
        return;
    Gap gap = {piece.begin, piece.end, 0};
    uintptr_t end = piece.end;
    if (!next.is_none()) {
        gap.end = memory_of(next).begin;
        end = HeapChunk::of(gap.end).begin();
    }
    if (former.is_none()) {
        gap.first_chunk = first_chunk_in(piece.begin, end);
    } else {
        gap.begin = memory_of(former).end;
        gap.first_chunk = chunk_behind(memory_of(former), piece.end);
    }
    if (gap.begin < gap.end || (gap.first_chunk != 0 && !next.is_none()))
        each_in_use(gap, end, next.is_none(), action);
}

void HeapGaps::each(Range piece, FunctionRef<void(Range)> action) {
    Neighbour former;
    for (uint32_t i = blocks_.first_from(piece.begin);
         i < blocks_.size() && blocks_[i].begin < piece.end; ++i) {
        Neighbour next(blocks_[i]);
        each_between(former, next, piece, action);
        if (former.is_none() || next.block_end() > former.block_end())
            former = next;
    }
    Neighbour none;
    each_between(former, none, piece, action);
}

} // namespace k42mc::internal
