// One line about a block, for who stops a process or tells of an access.
#pragma once

#include "base/site.h"

#include <span>
#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

class Words {
public:
    explicit Words(std::span<char> room) : room_(room) { room_[0] = '\0'; }

    // What finds no room is left out.
    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...);

    void add_bytes(size_t count);

    // "a block of 100 bytes"
    void add_block(size_t size, bool is_released = false);

    // "8 bytes inside a block of 100 bytes"
    void add_distance(uintptr_t address, uintptr_t block, size_t size, bool is_released = false);

    // ", allocated at server.c:12". The module that the name is in may be gone.
    void add_site(Site site);

private:
    const std::span<char> room_;
    size_t length_ = 0;
};

} // namespace k42mc::internal
