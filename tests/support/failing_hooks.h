// Allocation hooks that record their calls and fail on demand. Hooks have no argument of their own, so
// there is one record: a test begins with hooks::start().
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

struct hooks {
    using Blocks = std::vector<void *>;
    static inline std::string calls;   // a letter each: Alloc, Realloc, dealloc (F), destroy (X)
    static inline Blocks given, freed; // blocks in order; a failure gives null
    static inline Blocks destroyed;    // elements in order
    static inline int until_failure;   // counted down to the allocation that fails; 0: none

    static void start(int failing = 0) {
        calls.clear();
        given.clear(), freed.clear(), destroyed.clear();
        until_failure = failing;
    }

    static void *alloc(size_t size) { return give('A', nullptr, size); }
    static void *realloc(void *block, size_t size) { return give('R', block, size); }
    static void dealloc(void *block) {
        calls += 'F';
        freed.push_back(block);
        std::free(block);
    }
    // Leaves the element alone.
    static void destroy(void *element) {
        calls += 'X';
        destroyed.push_back(element);
    }

private:
    static void *give(char call, void *block, size_t size) {
        calls += call;
        given.push_back(until_failure && --until_failure == 0 ? nullptr : std::realloc(block, size));
        return given.back();
    }
};
