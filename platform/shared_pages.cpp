#include "platform/shared_pages.h"

#include "platform/platform.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {

int open_pagemap() {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
}

// A number of 64 bits takes two registers of 32. libc's function is a place where threads are cancelled.
size_t read_pagemap(int file, uintptr_t page, std::span<uint64_t> entries) {
    const uint64_t offset = uint64_t{page} * sizeof entries[0];
#if defined(__x86_64__)
    const long got = syscall(SYS_pread64, file, entries.data(), entries.size_bytes(), offset);
#else
    const long got = syscall(SYS_pread64, file, entries.data(), entries.size_bytes(),
                             static_cast<uint32_t>(offset), static_cast<uint32_t>(offset >> 32));
#endif
    return got > 0 ? static_cast<size_t>(got) / sizeof entries[0] : 0;
}

SharedPages::SharedPages(std::span<Window> room) : file_(open_pagemap()), windows_(room) {}

SharedPages::~SharedPages() {
    if (file_ >= 0)
        syscall(SYS_close, file_);
}

bool SharedPages::has(uintptr_t address) {
    constexpr uint64_t in_memory = uint64_t{1} << 63, of_file = uint64_t{1} << 61,
                       of_one_process = uint64_t{1} << 56;
    if (file_ < 0 || windows_.empty())
        return false;
    const uintptr_t page = address / page_size(), first = page & -Window::pages;
    Window &window = windows_[first / Window::pages % windows_.size()];
    if (window.count == 0 || window.first != first) {
        window.first = first;
        window.count = read_pagemap(file_, first, window.entries);
    }
    return page - first < window.count &&
           (window.entries[page - first] & (in_memory | of_file | of_one_process)) == in_memory;
}

} // namespace k42mc::internal::platform
