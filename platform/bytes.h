// Bytes in and out of the process by system calls and by nothing else: no buffers, no allocation.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <unistd.h>

namespace k42mc::internal::platform {

// Something that has bytes at offsets.
struct Source {
    int file; // a descriptor, or own_memory, where offsets are addresses
};
constexpr Source own_memory = {-1};

// Copies what can be read from the offset on, at most size bytes; returns how many. May change errno.
size_t fetch(Source source, uint64_t offset, void *to, size_t size);

template <typename Record> bool fetch(Source source, uint64_t offset, Record &record) {
    return fetch(source, offset, &record, sizeof record) == sizeof record;
}

} // namespace k42mc::internal::platform
