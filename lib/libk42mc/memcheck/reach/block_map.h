// The recorded blocks in the order of their addresses, so that a word can be told from a pointer into one.
#pragma once

#include "memcheck/reach/work_memory.h"
#include "memcheck/record_store.h"

namespace k42mc::internal {

struct Block {
    uintptr_t begin, end; // one of no bytes has one address all the same
    uint32_t number;      // of its record
    uint32_t outer; // the block that it lies in, which a process may have recorded as well; else none

    static constexpr uint32_t none = UINT32_MAX;
};

class BlockMap {
public:
    // For so many blocks.
    static size_t bytes_for(size_t count) { return count * sizeof(Block) + sizeof(Bucket) * buckets; }

    // With nobody recording.
    BlockMap(WorkMemory &memory, size_t count);

    uint32_t size() const { return static_cast<uint32_t>(blocks_.size()); }
    const Block &operator[](uint32_t index) const { return blocks_[index]; }

    // The innermost block that a word points into, by what remains of it without tags; else none.
    uint32_t find(uintptr_t word) const {
        const uintptr_t address = word & address_bits;
        if (address - lowest_ >= extent_)
            return Block::none;
        return find_near(address);
    }

    // The first block that begins there or further up.
    uint32_t first_from(uintptr_t address) const;

private:
    // Blocks that begin in the same stretch of memory. Stretches share buckets: of which it is one, is noted.
    struct Bucket {
        uintptr_t stretch;
        uint32_t first, behind;
    };
    static constexpr int stretch_bits = 16;
    static constexpr size_t buckets = 1u << 16;

    // Programs keep marks in the bits of a pointer that are always the same.
    static constexpr uintptr_t address_bits =
        sizeof(void *) == 8 ? static_cast<uintptr_t>(0xffffffffffff) : UINTPTR_MAX;
    static constexpr uintptr_t low_tags = 7;

    uint32_t find_near(uintptr_t address) const;
    void find_outer_blocks();
    void fill_buckets();

    std::span<Block> blocks_;
    std::span<Bucket> buckets_;
    uintptr_t lowest_ = 0, extent_ = 0;
};

} // namespace k42mc::internal
