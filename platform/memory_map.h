// What is mapped into the process, and which pages of it hold anything.
#pragma once

#include "platform/proc_file.h"

#include <span>

namespace k42mc::internal::platform {

struct Mapping {
    uintptr_t begin, end;
    bool readable, writable, shared;
    bool from_file;
    bool is_first_stack; // the first thread's
    bool is_apart;       // the system's own, or a device's
};

class MemoryMap {
public:
    MemoryMap() : file_("/proc/self/maps") {}

    bool next(Mapping &mapping);

    // Whether those were all.
    bool is_whole() const { return file_.is_whole(); }

private:
    void read_name(Mapping &mapping, int last);

    ProcFile file_;
};

// Asked for pages in ascending order, it asks the system for as many at a time as it has room for.
class PageContents {
public:
    explicit PageContents(std::span<uint64_t> room);
    ~PageContents();
    PageContents(const PageContents &) = delete;
    PageContents &operator=(const PageContents &) = delete;

    // Whether a page may hold something of the process's own. In a private mapping, neither the zeros of memory that
    // nobody has touched nor the bytes of a file are that; in a shared one, nothing that is not in memory is. True where
    // that is not known.
    bool is_own(uintptr_t address, const Mapping &mapping);

private:
    bool is_known(uintptr_t page, const Mapping &mapping);
    bool fetch(uintptr_t page);
    bool fetch_shared(uintptr_t page, uintptr_t end);

    const int file_;
    uintptr_t first_ = 0;
    size_t count_ = 0;
    bool is_shared_ = false; // what was fetched
    const std::span<uint64_t> entries_;
    const std::span<unsigned char> in_memory_; // in the same room
};

} // namespace k42mc::internal::platform
