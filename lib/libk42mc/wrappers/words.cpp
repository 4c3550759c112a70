#include "wrappers/words.h"

#include "platform/bytes.h"

#include <algorithm>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace k42mc::internal {

void Words::add(const char *format, ...) {
    const std::span<char> left = room_.subspan(length_);
    va_list arguments;
    va_start(arguments, format);
    const int wanted = vsnprintf(left.data(), left.size(), format, arguments);
    va_end(arguments);
    length_ += std::min(static_cast<size_t>(std::max(wanted, 0)), left.size() - 1);
}

void Words::add_bytes(size_t count) {
    add("%zu byte%s", count, count == 1 ? "" : "s");
}

void Words::add_block(size_t size, bool is_released) {
    add("a %sblock of ", is_released ? "released " : "");
    add_bytes(size);
}

void Words::add_distance(uintptr_t address, uintptr_t block, size_t size, bool is_released) {
    const uintptr_t offset = address - block;
    if (address < block)
        add_bytes(block - address), add(" before ");
    else if (offset == 0 && size != 0)
        add("at the start of ");
    else if (offset < size)
        add_bytes(offset), add(" inside ");
    else if (offset == size)
        add("at the end of ");
    else
        add_bytes(offset - size), add(" past the end of ");
    add_block(size, is_released);
}

void Words::add_site(Site site) {
    char file[256];
    const size_t length =
        platform::fetch(platform::own_memory, reinterpret_cast<uintptr_t>(site.file), file, sizeof file);
    add(", allocated at %.*s", static_cast<int>(strnlen(file, length)), file);
    if (site.line != 0)
        add(":%d", site.line);
}

} // namespace k42mc::internal
