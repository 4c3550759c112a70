#include "tools/common/characters.h"

namespace {

bool continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

} // namespace

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
