// What stands behind the functions that the shim takes the place of.
#pragma once

#include "platform/definition.h"
#include "tools/preload/depth.h"

#include <atomic>
#include <dlfcn.h>

// Whether this thread is at a lookup, which may allocate.
extern __thread bool looking_up;

inline void *find_next(const char *name) {
    if (void *const next = k42mc::internal::platform::next_definition(name))
        return next;
    const InsideChecker inside;
    looking_up = true;
    void *const next = dlsym(RTLD_NEXT, name);
    looking_up = false;
    return next;
}

// Looked up once, or by each of the threads that are the first to ask.
#define NEXT(function)                                                                                  \
    ([] {                                                                                               \
        static constinit std::atomic<void *> next = nullptr;                                            \
        if (next.load(std::memory_order_relaxed) == nullptr)                                            \
            next.store(find_next(#function), std::memory_order_relaxed);                                \
        return reinterpret_cast<decltype(::function) *>(next.load(std::memory_order_relaxed));          \
    }())
