// Pages that a fork has left to parent and child alike.
#pragma once

#include <span>
#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal::platform {

class SharedPages {
public:
    // What the system says of pages that lie together.
    struct Window {
        static constexpr size_t pages = 512;
        uintptr_t first; // of the pages
        size_t count;    // 0 for none
        uint64_t entries[pages];
    };

    // Zeros, a power of two of them: asked for in any order, pages far apart get into each other's way where there are few.
    explicit SharedPages(std::span<Window> room);
    ~SharedPages();
    SharedPages(const SharedPages &) = delete;
    SharedPages &operator=(const SharedPages &) = delete;

    // Whether another process has the page of private memory at an address as well: so neither has written to it since the
    // fork. False where that is not known, and for memory that processes share on purpose.
    bool has(uintptr_t address);

private:
    const int file_;
    const std::span<Window> windows_;
};

// Entries of /proc/self/pagemap from a page on. Returns how many there were.
int open_pagemap();
size_t read_pagemap(int file, uintptr_t page, std::span<uint64_t> entries);

} // namespace k42mc::internal::platform
