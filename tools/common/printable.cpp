#include "tools/common/printable.h"

#include <cstdint>

namespace {

struct Character {
    size_t length = 0; // 0 for none
    uint32_t code = 0;
};

bool continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// The well-formed UTF-8 character at the start.
Character character_at(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return {1, first};
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || length > text.size())
        return {};
    uint32_t code = first & (0x7fu >> length);
    for (const char byte : text.substr(1, length - 1)) {
        if (!continues(byte))
            return {};
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3f);
    }
    constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool well_formed =
        code >= least[length] && code <= 0x10ffff && !(code >= 0xd800 && code <= 0xdfff);
    return well_formed ? Character{length, code} : Character{};
}

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
