#include "memcheck/record_store.h"

#include "memcheck/records_lock.h"
#include "platform/platform.h"

#include <utility>

namespace k42mc::internal {

constinit Chunk *gMCChunks[most_chunks] = {};
constinit uint32_t gMCChunkCount = 0;
constinit pthread_mutex_t gMCRecordsLock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;

namespace {

constinit uint32_t next_fresh = 0; // number of the first record that nobody has had

// Batches of free records. In the first record of each, the address is the number of the next batch.
constinit uint32_t first_batch = 0;

bool map_chunk() {
    if (gMCChunkCount == most_chunks)
        return false;
    auto *chunk = static_cast<Chunk *>(platform::map_memory(sizeof(Chunk)));
    if (chunk == nullptr)
        return false;
    gMCChunks[gMCChunkCount++] = chunk;
    return true;
}

} // namespace

uint32_t FreeRecords::take_fresh() {
    if (fresh_ == fresh_end_) {
        const RecordsLock lock;
        if (first_batch != 0) {
            const uint32_t number = first_batch;
            first_batch = static_cast<uint32_t>(record_at(number).address);
            first_ = record_at(number).site;
            count_ = batch - 1;
            return number;
        }
        if (next_fresh == gMCChunkCount * Chunk::room && !map_chunk())
            return 0;
        fresh_ = next_fresh + (next_fresh == 0); // number 0 is none
        fresh_end_ = next_fresh += batch;
    }
    return fresh_++;
}

void FreeRecords::give_batch() {
    const uint32_t given = first_;
    uint32_t last = given;
    for (uint32_t i = 1; i < batch; ++i)
        last = record_at(last).site;
    first_ = std::exchange(record_at(last).site, 0);
    count_ -= batch;
    const RecordsLock lock;
    record_at(given).address = first_batch;
    first_batch = given;
}

bool map_first_chunk() {
    return map_chunk();
}

void unmap_chunks() {
    for (uint32_t i = 0; i < gMCChunkCount; ++i)
        platform::unmap_memory(std::exchange(gMCChunks[i], nullptr), sizeof(Chunk));
    gMCChunkCount = next_fresh = first_batch = 0;
}

} // namespace k42mc::internal
