// The memory between recorded blocks, without what libc's allocator has free: there, pointers are left over from blocks
// that were released.
#pragma once

#include "base/function_ref.h"
#include "memcheck/reach/block_map.h"
#include "memcheck/reach/moment.h"
#include "memcheck/reach/range.h"
#include "platform/shared_pages.h"

#include <optional>

namespace k42mc::internal {

class HeapGaps {
public:
    static size_t bytes_for(const Moment &moment) { return most_kept(moment) * sizeof(uintptr_t); }

    HeapGaps(WorkMemory &memory, const Moment &moment, const BlockMap &blocks,
             platform::GuardedCopies &copies, platform::SharedPages &inherited);

    // Calls action with each range that is outside of blocks and may be in use, but for those whose pages are all inherited.
    void each(Range piece, FunctionRef<void(Range)> action);

private:
    // A stretch without blocks. Where it is known to be made of chunks, those begin and end at its ends.
    struct Gap {
        uintptr_t begin, end;
        uintptr_t first_chunk; // 0: not known
    };

    // A block at an end of a gap, or none; its memory is asked for where it is needed.
    class Neighbour {
    public:
        Neighbour() = default;
        explicit Neighbour(const Block &block) : block_(&block) {}

        bool is_none() const { return block_ == nullptr; }
        uintptr_t block_begin() const { return block_->begin; }
        uintptr_t block_end() const { return block_->end; }

    private:
        friend HeapGaps;

        const Block *block_ = nullptr;
        std::optional<Range> memory_;
    };

    static size_t most_kept(const Moment &moment);
    void take_kept(const Moment &moment);
    bool is_inherited(uintptr_t begin, uintptr_t end) const;
    bool is_free(const platform::HeapChunk &chunk) const;
    Range raw_memory_around(const Block &block) const;
    Range memory_of(Neighbour &neighbour) const;
    uintptr_t chunk_behind(Range memory, uintptr_t limit) const;
    uintptr_t first_chunk_in(uintptr_t begin, uintptr_t end) const;
    uintptr_t end_of_chunks(uintptr_t first, uintptr_t limit) const;
    void each_between(Neighbour &former, Neighbour &next, Range piece, FunctionRef<void(Range)> action);
    void each_in_use(const Gap &gap, uintptr_t end, bool ends_heap, FunctionRef<void(Range)> action);

    const BlockMap &blocks_;
    platform::GuardedCopies &copies_;
    platform::SharedPages &inherited_;
    std::span<uintptr_t> kept_; // memory of chunks that threads keep for themselves, in order
};

} // namespace k42mc::internal
