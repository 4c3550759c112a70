// An exchange that nobody but the calling thread and its signal handlers may be at.
#pragma once

#include <atomic>
#include <stdint.h>

namespace k42mc::internal::platform {

// One instruction, so that a handler comes ahead of it or after; it waits for no other core, as an atomic one does.
inline bool exchange_alone(std::atomic<uint32_t> &value, uint32_t expected, uint32_t desired) {
    static_assert(sizeof(value) == sizeof(uint32_t));
    bool done;
    asm("cmpxchgl %3, %1"
        : "=@ccz"(done), "+m"(reinterpret_cast<uint32_t &>(value)), "+a"(expected)
        : "r"(desired)
        : "memory");
    return done;
}

} // namespace k42mc::internal::platform
