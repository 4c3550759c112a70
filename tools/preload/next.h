// What stands behind the functions that the shim takes the place of.
#pragma once

#include "tools/preload/depth.h"

#include <atomic>
#include <dlfcn.h>

inline void *find_next(const char *name) {
    const InsideChecker inside; // dlsym may allocate
    return dlsym(RTLD_NEXT, name);
}

// Looked up once, or by each of the threads that are the first to ask.
#define NEXT(function)                                                                                  \
    ([] {                                                                                               \
        static constinit std::atomic<void *> next = nullptr;                                            \
        if (next.load(std::memory_order_relaxed) == nullptr)                                            \
            next.store(find_next(#function), std::memory_order_relaxed);                                \
        return reinterpret_cast<decltype(::function) *>(next.load(std::memory_order_relaxed));          \
    }())
