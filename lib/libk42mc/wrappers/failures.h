// Allocations that fail on purpose.
#pragma once

#include "base/site.h"
#include "wrappers/k42MC.h"

#include <k42mc/extra.h>

#include <atomic>
#include <span>

namespace k42mc::internal {

extern constinit std::atomic<bool> failures_wanted;

struct PurposefulFailure {
    Site site;
    size_t size;
    uint64_t number; // of those that may fail
    std::span<void *const> trace;
};

// Told of each, in the midst of the allocation; null for who reads it on the report sink.
using FailureListener = void (*)(const PurposefulFailure &);
extern constinit FailureListener failure_listener;

// Told of each stack when its first allocation comes that may fail, in the midst of it: by its name, which is the same in
// each run of a program, wherever its modules are loaded.
using StackListener = void (*)(uint64_t stack);

// What a place in the program is to the choice: bits.
enum Verdict : uint32_t { never = 1, is_at = 2, is_only = 4, verdict_bits = 15 };

// What else is to be said of a return address.
using PlaceJudge = uint32_t (*)(const void *frame);

struct Failures : k42mcx_failures {
    uint64_t stack = 0; // the first allocation with the stack of that name
    StackListener new_stack = nullptr;
    PlaceJudge judge_place = nullptr;
};

// As k42mcx_fail, and ENOMEM where there is none to know stacks by.
int choose_failures(const Failures &which);

// Whether this one is to be among them.
bool fails_on_purpose(Site site, size_t size);

inline bool is_to_fail(Site site, size_t size) {
    return failures_wanted.load(std::memory_order_relaxed) && fails_on_purpose(site, size);
}

// As with_guards, and 0 for an allocation that is to fail.
inline size_t raw_size_for(Site site, size_t size, size_t alignment = 1) {
    return is_to_fail(site, size) ? 0 : with_guards(size, alignment);
}

} // namespace k42mc::internal
