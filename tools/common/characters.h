// UTF-8, where it may be none.
#pragma once

#include <cstdint>
#include <string_view>

struct Character {
    size_t length = 0; // in bytes; 0 for none
    uint32_t code = 0;
};

// The well-formed character at the start of a text that is not empty.
Character character_at(std::string_view text);
