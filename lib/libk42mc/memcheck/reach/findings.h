// What somebody who looks at the process finds, in memory that a copy of the process shares.
#pragma once

#include "memcheck/record_store.h"
#include "memcheck/registry.h"
#include "memcheck/state.h"

namespace k42mc::internal {

// A result that ends with an array of its Element, in which there is room for one of each record.
template <class Result> class Findings {
public:
    Findings() = default;
    ~Findings() {
        if (result_ != nullptr)
            platform::unmap_memory(result_, bytes_);
    }
    Findings(const Findings &) = delete;
    Findings &operator=(const Findings &) = delete;

    // Zeros, or nothing where memory runs out. With gMCLock held.
    bool make() {
        generation_ = gMCGeneration;
        bytes_ = sizeof(Result) + most_records() * sizeof(typename Result::Element);
        result_ = static_cast<Result *>(platform::map_shared_memory(bytes_));
        return result_ != nullptr;
    }

    explicit operator bool() const { return result_ != nullptr; }
    Result &operator*() const { return *result_; }
    Result *operator->() const { return result_; }

    // Whether the registry is still the one that was looked at, or has gone with all records. With gMCLock held.
    bool are_current() const {
        return result_ != nullptr && registry_exists() && generation_ == gMCGeneration;
    }

private:
    Result *result_ = nullptr;
    size_t bytes_ = 0;
    uint32_t generation_ = 0;
};

} // namespace k42mc::internal
