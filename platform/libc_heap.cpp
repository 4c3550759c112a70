#include "platform/libc_heap.h"

#include "platform/bytes.h"

#include <atomic>

#include <pthread.h>
#include <stdlib.h>

namespace k42mc::internal::platform {
namespace {

struct Words {
    uintptr_t size_before; // of the chunk ahead, where that is free
    uintptr_t size_and_flags;
    uintptr_t memory[2]; // at least
};

constexpr uintptr_t word = sizeof(uintptr_t), smallest = sizeof(Words);
constexpr uintptr_t previous_in_use = 1, mapped_alone = 2, flags = 7;

// A thread's own cache lies in its static thread-local memory, which is below its control block.
constexpr uintptr_t longest_static_memory = 1u << 16;

// A block that its thread keeps from now on, for the list of its size. Behind the compiler's back: it is not ours any
// more.
uintptr_t keep_block(size_t size) {
    void *block = malloc(size);
    const auto address = reinterpret_cast<uintptr_t>(block);
    free(block);
    return address;
}

} // namespace

// The block is the first of its list then.
ThreadCaches ThreadCaches::learn() {
    constexpr uintptr_t not_there = 1;
    constexpr size_t size = 2 * HeapChunk::alignment - word;
    constexpr uintptr_t list = lists_at + (size + word - smallest) / HeapChunk::alignment * word;
    static constinit std::atomic<uintptr_t> known = 0;
    if (known == 0) {
        const uintptr_t kept = keep_block(size);
        const auto control_block = static_cast<uintptr_t>(pthread_self());
        uintptr_t offset = word, cache = 0, first = 0;
        while (offset < longest_static_memory && fetch(own_memory, control_block - offset, cache) &&
               !(cache != 0 && cache % word == 0 && fetch(own_memory, cache + list, first) &&
                 first == kept))
            offset += word;
        known = first == kept ? offset : not_there;
    }
    return ThreadCaches(known != not_there ? known.load() : 0);
}

// The last one of a heap ends with it, wherever that is.
bool HeapChunk::read(GuardedCopies &copies, uintptr_t limit) {
    Words words;
    if (begin_ > limit || limit - begin_ < sizeof words || !copies.copy(begin_, words))
        return false;
    size_ = words.size_and_flags & ~flags;
    return (words.size_and_flags & mapped_alone) == 0 && size_ >= smallest && size_ <= limit - begin_ &&
           (size_ % alignment == 0 || end() == limit);
}

bool HeapChunk::is_free(GuardedCopies &copies) const {
    uintptr_t next[2];
    return copies.copy(end(), next) && (next[1] & previous_in_use) == 0 && next[0] == size_;
}

} // namespace k42mc::internal::platform
