#include "memcheck/outer_frames.h"

#include "memcheck/records_lock.h"
#include "platform/platform.h"

#include <algorithm>
#include <errno.h>

namespace k42mc::internal {

constinit std::atomic<int> trace_limit = AllocationSite::most_frames;

namespace {

constexpr uint32_t chunk_room = 256, most_chunks = 256, most_numbers = chunk_room * most_chunks;

// Open addressing, at most half full. Where they are, they stay.
struct Table {
    std::atomic<uint32_t> slots[2 * most_numbers];
};

constinit std::atomic<Table *> table = nullptr;
constinit OuterFrames *chunks[most_chunks] = {};
constinit uint32_t next_number = 1;

OuterFrames &at(uint32_t number) {
    return chunks[number / chunk_room][number % chunk_room];
}

size_t hash(std::span<void *const> frames) {
    uint64_t sum = frames.size();
    for (const void *frame : frames)
        sum = (sum ^ reinterpret_cast<uintptr_t>(frame)) * 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(sum >> 40);
}

// The slot that has them, or that they would come into.
std::atomic<uint32_t> &find(Table &in, std::span<void *const> frames, bool is_cut) {
    constexpr size_t mask = 2 * most_numbers - 1;
    for (size_t slot = hash(frames) & mask;; slot = (slot + 1) & mask) {
        const uint32_t number = in.slots[slot].load(std::memory_order_acquire);
        if (number == 0 ||
            (at(number).is_cut == is_cut && std::ranges::equal(at(number).trace(), frames)))
            return in.slots[slot];
    }
}

Table *made_table() {
    Table *made = table.load(std::memory_order_relaxed);
    if (made == nullptr) {
        made = static_cast<Table *>(platform::map_memory(sizeof(Table)));
        table.store(made, std::memory_order_release);
    }
    return made;
}

bool has_room() {
    if (next_number == most_numbers)
        return false;
    OuterFrames *&chunk = chunks[next_number / chunk_room];
    if (chunk == nullptr)
        chunk = static_cast<OuterFrames *>(platform::map_memory(chunk_room * sizeof(OuterFrames)));
    return chunk != nullptr;
}

uint32_t add(std::span<void *const> frames, bool is_cut) {
    const RecordsLock lock;
    Table *const in = made_table();
    if (in == nullptr)
        return 0;
    std::atomic<uint32_t> &slot = find(*in, frames, is_cut);
    const uint32_t known = slot.load(std::memory_order_relaxed);
    if (known != 0 || !has_room())
        return known;
    OuterFrames &added = at(next_number);
    added.count = static_cast<uint32_t>(frames.size());
    added.is_cut = is_cut;
    std::ranges::copy(frames, added.frames);
    slot.store(next_number, std::memory_order_release);
    return next_number++;
}

} // namespace

uint32_t number_of_outer_frames(std::span<void *const> frames, bool is_cut) {
    Table *const in = table.load(std::memory_order_acquire);
    const uint32_t known = in != nullptr ? find(*in, frames, is_cut).load(std::memory_order_relaxed) : 0;
    return known != 0 ? known : add(frames, is_cut);
}

const OuterFrames &outer_frames_at(uint32_t number) {
    return at(number);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_depth(int frames) {
    if (frames < AllocationSite::most_frames || frames > K42MCX_DEEP)
        return EINVAL;
    trace_limit.store(frames, std::memory_order_relaxed);
    return 0;
}

K42MC_EXPORT(k42mcx_depth);
