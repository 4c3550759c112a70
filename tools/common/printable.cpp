#include "tools/common/printable.h"

#include "tools/common/characters.h"

#include <algorithm>

namespace {

bool is_harmless(uint32_t code) {
    const bool controls = code < 0x20 || (code >= 0x7f && code < 0xa0);
    const bool ends_line = code == 0x2028 || code == 0x2029;
    const bool turns = code == 0x061c || code == 0x200e || code == 0x200f ||
                       (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
    return !controls && !ends_line && !turns;
}

} // namespace

std::string printable(std::string_view text) {
    constexpr const char *digits = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = character_at(text);
        const std::string_view bytes = text.substr(0, std::max<size_t>(character.length, 1));
        if (character.length != 0 && is_harmless(character.code))
            result += bytes;
        else
            for (const char byte : bytes) {
                const auto value = static_cast<unsigned char>(byte);
                result += {'\\', 'x', digits[value >> 4], digits[value & 15]};
            }
        text.remove_prefix(bytes.size());
    }
    return result;
}

std::string shortened(std::string_view text) {
    constexpr size_t most = 200;
    if (text.size() <= most)
        return std::string(text);
    return std::string(text.substr(0, most)) + " ...";
}
