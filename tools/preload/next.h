// What stands behind the functions that the shim takes the place of.
#pragma once

#include "tools/preload/depth.h"

#include <dlfcn.h>

inline void *find_next(const char *name) {
    const InsideChecker inside; // dlsym may allocate
    return dlsym(RTLD_NEXT, name);
}

// Looked up once.
#define NEXT(function)                                                                                  \
    ([] {                                                                                               \
        static constinit decltype(::function) *next = nullptr;                                          \
        if (next == nullptr)                                                                            \
            next = reinterpret_cast<decltype(::function) *>(find_next(#function));                      \
        return next;                                                                                    \
    }())
