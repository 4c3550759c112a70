// printf would take most of a long report's time, in which no other thread can allocate.
#include "memcheck/block_line.h"

#include <bit>
#include <charconv>
#include <string.h>

namespace k42mc::internal {
namespace {

constexpr size_t room_for_numbers = 128;

template <class Number> char *put(char *at, Number number) {
    return std::to_chars(at, at + room_for_numbers, number).ptr;
}

char *put_address(char *at, uintptr_t address) {
    at = stpcpy(at, ":0x");
    for (int shift = static_cast<int>(std::bit_width(address | 1) - 1) / 4 * 4; shift >= 0; shift -= 4)
        *at++ = "0123456789ABCDEF"[address >> shift & 0xf];
    return at;
}

} // namespace

void put_block(TextOutput &out, const RecordedBlock &block, const char *tag) {
    const AllocationSite &site = block.site;
    char line[512], *at = line;
    const size_t name = strlen(site.file);
    if (name > sizeof line - room_for_numbers)
        out.put(site.file, name);
    else
        at = static_cast<char *>(mempcpy(at, site.file, name));
    *at++ = ':';
    at = put(at, site.line);
    *at++ = ':';
    at = stpcpy(at, tag);
    *at++ = ':';
    at = put_address(stpcpy(at, gAllocatorType[site.type]), block.address);
    *at++ = ':';
    at = put(at, block.size);
    *at++ = ':';
    at = put(at, block.age);
    *at++ = '\n';
    out.put(line, static_cast<size_t>(at - line));
}

} // namespace k42mc::internal
