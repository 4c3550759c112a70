// Numbers with their nouns, as people write them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// "1 block", "2 blocks"; what ends in a hiss takes "es".
inline std::string counted(uint64_t number, std::string_view noun) {
    std::string text = std::to_string(number) + ' ' + std::string(noun);
    if (number != 1)
        text += noun.ends_with('s') ? "es" : "s";
    return text;
}
