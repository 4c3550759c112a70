// The memory that a search works in: mapped at once, so that the search itself knows to leave it out.
#pragma once

#include "platform/platform.h"

#include <span>

namespace k42mc::internal {

class WorkMemory {
public:
    explicit WorkMemory(size_t size) : size_(size), begin_(platform::map_memory(size)) {}
    ~WorkMemory() {
        if (begin_ != nullptr)
            platform::unmap_memory(begin_, size_);
    }
    WorkMemory(const WorkMemory &) = delete;
    WorkMemory &operator=(const WorkMemory &) = delete;

    explicit operator bool() const { return begin_ != nullptr; }
    uintptr_t begin() const { return reinterpret_cast<uintptr_t>(begin_); }
    uintptr_t end() const { return begin() + size_; }

    // Zeros; nothing where there was no memory.
    template <class Element> std::span<Element> take(size_t count) {
        if (begin_ == nullptr)
            return {};
        taken_ = (taken_ + alignof(Element) - 1) & -alignof(Element);
        auto *const first = reinterpret_cast<Element *>(static_cast<char *>(begin_) + taken_);
        taken_ += count * sizeof(Element);
        return {first, count};
    }

private:
    const size_t size_;
    void *const begin_;
    size_t taken_ = 0;
};

} // namespace k42mc::internal
