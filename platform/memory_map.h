// What is mapped into the process, and which pages of it hold anything.
#pragma once

#include "platform/proc_file.h"

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

    bool is_open() const { return file_.is_open(); }
    bool next(Mapping &mapping);

private:
    void read_name(Mapping &mapping, int last);

    ProcFile file_;
};

// Asked for pages in ascending order, it asks the system for many at a time.
class PageContents {
public:
    PageContents();
    ~PageContents();
    PageContents(const PageContents &) = delete;
    PageContents &operator=(const PageContents &) = delete;

    // Whether a page of a private mapping holds something of the process's own: neither the zeros of memory that
    // nobody has touched nor the bytes of a file. True where that is not known.
    bool is_own(uintptr_t address);

private:
    bool fetch(uintptr_t page);

    const int file_;
    uintptr_t first_ = 0;
    size_t count_ = 0;
    uint64_t entries_[512];
};

// Whether a page of a shared mapping is in memory. True where that is not known.
bool is_in_memory(uintptr_t address);

} // namespace k42mc::internal::platform
