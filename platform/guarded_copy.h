// Reading memory that may go away, or that never was there.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal::platform {

// While it lives, the calling thread, and no other, can copy from anywhere. A fault of another thread goes to whoever
// would have had it. One at a time.
class GuardedCopies {
public:
    GuardedCopies();
    ~GuardedCopies();
    GuardedCopies(const GuardedCopies &) = delete;
    GuardedCopies &operator=(const GuardedCopies &) = delete;

    // Not where a sandbox denies it.
    explicit operator bool() const { return is_set_; }

    // False if a byte of it cannot be read.
    bool copy(uintptr_t from, void *to, size_t size);

    template <typename Record> bool copy(uintptr_t from, Record &record) {
        return copy(from, &record, sizeof record);
    }

private:
    uint64_t former_mask_ = 0;
    bool is_set_ = false;
};

} // namespace k42mc::internal::platform
