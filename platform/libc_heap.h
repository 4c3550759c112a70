// How libc's allocator lays out its memory: in chunks, one behind another, each with its size ahead of what its owner
// may use.
#pragma once

#include "platform/guarded_copy.h"

namespace k42mc::internal::platform {

// Each thread keeps some chunks that it has released for its next allocations. They look like those in use, but for a
// list of them, which its thread-local memory leads to.
class ThreadCaches {
public:
    // Finds out where, by an allocation: to be called with no lock held. Other allocators have none.
    static ThreadCaches learn();

    // Calls action with the memory of each chunk that a thread keeps.
    template <class Action>
    void each_kept(GuardedCopies &copies, uintptr_t control_block, Action action) const {
        uintptr_t lists[list_count];
        uintptr_t cache;
        if (offset_ == 0 || !copies.copy(control_block - offset_, cache) ||
            !copies.copy(cache + lists_at, lists))
            return;
        for (const uintptr_t first : lists)
            each_in_list(copies, first, action);
    }

private:
    static constexpr size_t list_count = 64;
    static constexpr uintptr_t lists_at = list_count * sizeof(uint16_t); // behind their lengths
    static constexpr int longest_list = UINT16_MAX;

    // Each chunk's memory begins with where the next one's is, disguised by where that stands.
    template <class Action>
    static void each_in_list(GuardedCopies &copies, uintptr_t memory, Action action) {
        uintptr_t next;
        for (int i = 0; i < longest_list && memory != 0 && copies.copy(memory, next); ++i) {
            action(memory);
            memory = next ^ memory >> 12;
        }
    }

    explicit ThreadCaches(uintptr_t offset) : offset_(offset) {}

    uintptr_t offset_; // 0 for none; of the cache's address, below a thread's control block
};

class HeapChunk {
public:
    static constexpr uintptr_t alignment = 16; // of what owners get

    // The chunk that begins there, or whose memory for its owner does.
    static HeapChunk at(uintptr_t begin) { return HeapChunk(begin); }
    static HeapChunk of(uintptr_t memory) { return HeapChunk(memory - 2 * sizeof(uintptr_t)); }

    // Where chunks may begin.
    static uintptr_t first_place(uintptr_t address) {
        return (address + 2 * sizeof(uintptr_t) + alignment - 1) / alignment * alignment -
               2 * sizeof(uintptr_t);
    }
    static uintptr_t next_place(uintptr_t place) { return place + alignment; }

    // Looks whether it can be one that ends at `limit` or ahead of it. False where it is mapped for itself.
    bool read(GuardedCopies &copies, uintptr_t limit);

    uintptr_t begin() const { return begin_; }
    uintptr_t end() const { return begin_ + size_; }
    uintptr_t memory() const { return begin_ + 2 * sizeof(uintptr_t); }
    uintptr_t memory_end() const { return end() + sizeof(uintptr_t); }

    // By the next one's words. Not where a thread keeps it; and the last of a heap has no next.
    bool is_free(GuardedCopies &copies) const;

private:
    explicit HeapChunk(uintptr_t begin) : begin_(begin) {}

    uintptr_t begin_;
    uintptr_t size_ = 0;
};

} // namespace k42mc::internal::platform
