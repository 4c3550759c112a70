// Memory that will be looked at soon is asked for ahead, so that it comes while other things are done.
#pragma once

#include <stdint.h>

namespace k42mc::internal::platform {

// Any address will do. Compilers have a function for it, which for the oldest processors does nothing, though all
// since those of 1995 take the instruction; and what calls nothing else they take for something without an effect.
inline void prefetch(uintptr_t address) {
    asm volatile("prefetcht0 (%0)" : : "r"(address));
}

} // namespace k42mc::internal::platform
