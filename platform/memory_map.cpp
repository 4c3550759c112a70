#include "platform/memory_map.h"

#include "platform/shared_pages.h"

#include "platform/platform.h"

#include <algorithm>

#include <string.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

bool begins_with(const char *text, const char *beginning) {
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

// Reading a device can make it do something. Memory that processes share lies in /dev, too.
bool is_device(const char *name) {
    return begins_with(name, "/dev/") && !begins_with(name, "/dev/shm/") &&
           !begins_with(name, "/dev/zero");
}

} // namespace

// "7f0c8a000000-7f0c8a021000 rw-p 00000000 00:00 0     [name]"
bool MemoryMap::next(Mapping &mapping) {
    int last;
    mapping = {};
    mapping.begin = static_cast<uintptr_t>(file_.hexadecimal(last));
    if (last != '-')
        return false;
    mapping.end = static_cast<uintptr_t>(file_.hexadecimal(last));
    mapping.readable = file_.get() == 'r';
    mapping.writable = file_.get() == 'w';
    file_.get();
    mapping.shared = file_.get() == 's';
    file_.get();
    file_.hexadecimal(last); // the offset
    file_.hexadecimal(last); // the device
    file_.hexadecimal(last);
    mapping.from_file = file_.decimal(last) != 0;
    read_name(mapping, last);
    return true;
}

void MemoryMap::read_name(Mapping &mapping, int last) {
    char name[16];
    size_t length = 0;
    while (last == ' ')
        last = file_.get();
    for (; last >= 0 && last != '\n'; last = file_.get())
        if (length < sizeof name - 1)
            name[length++] = static_cast<char>(last);
    name[length] = '\0';
    mapping.is_first_stack = strcmp(name, "[stack]") == 0;
    mapping.is_apart = begins_with(name, "[v") || is_device(name);
}

PageContents::PageContents(std::span<uint64_t> room)
    : file_(open_pagemap()), entries_(room),
      in_memory_(reinterpret_cast<unsigned char *>(room.data()), room.size_bytes()) {}

PageContents::~PageContents() {
    if (file_ >= 0)
        syscall(SYS_close, file_);
}

bool PageContents::fetch(uintptr_t page) {
    count_ = read_pagemap(file_, page, entries_);
    return count_ != 0;
}

bool PageContents::fetch_shared(uintptr_t page, uintptr_t end) {
    auto *const begin =
        reinterpret_cast<void *>(page * page_size()); // NOLINT(performance-no-int-to-ptr)
    const size_t pages = std::min<size_t>(end - page, in_memory_.size());
    count_ = mincore(begin, pages * page_size(), in_memory_.data()) == 0 ? pages : 0;
    return count_ != 0;
}

bool PageContents::is_known(uintptr_t page, const Mapping &mapping) {
    if (mapping.shared == is_shared_ && page - first_ < count_)
        return true;
    first_ = page;
    is_shared_ = mapping.shared;
    return is_shared_ ? fetch_shared(page, mapping.end / page_size()) : fetch(page);
}

bool PageContents::is_own(uintptr_t address, const Mapping &mapping) {
    constexpr uint64_t in_memory = uint64_t{1} << 63, in_swap = uint64_t{1} << 62,
                       of_file = uint64_t{1} << 61;
    const uintptr_t page = address / page_size();
    if (!is_known(page, mapping))
        return true;
    if (is_shared_)
        return (in_memory_[page - first_] & 1) != 0;
    const uint64_t entry = entries_[page - first_];
    return (entry & (in_memory | in_swap)) != 0 && (entry & of_file) == 0;
}

} // namespace k42mc::internal::platform
