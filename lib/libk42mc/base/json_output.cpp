#include "base/json_output.h"

#include "platform/platform.h"

#include <charconv>
#include <limits.h>
#include <string.h>

namespace k42mc::internal {
namespace {

// The length of the well-formed UTF-8 character there, 0 for none.
size_t character_length(const unsigned char *at, size_t room) {
    if (at[0] < 0x80)
        return 1;
    const size_t length = at[0] >= 0xf0 ? 4 : at[0] >= 0xe0 ? 3 : 2;
    if (at[0] < 0xc2 || at[0] > 0xf4 || length > room)
        return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0) != 0x80)
            return 0;
    }
    // Overlong forms, surrogates, and what lies beyond the last character.
    const bool well_formed = (at[0] != 0xe0 || at[1] >= 0xa0) && (at[0] != 0xed || at[1] < 0xa0) &&
                             (at[0] != 0xf0 || at[1] >= 0x90) && (at[0] != 0xf4 || at[1] < 0x90);
    return well_formed ? length : 0;
}

} // namespace

void JsonOutput::string(const char *text, size_t size) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(text);
    text_.put("\"", 1);
    for (size_t i = 0; i < size;) {
        const size_t length = character_length(bytes + i, size - i);
        if (length == 0)
            text_.print("\\ufffd");
        else if (bytes[i] < 0x20)
            text_.print("\\u%04x", unsigned{bytes[i]});
        else if (bytes[i] == '"' || bytes[i] == '\\')
            text_.print("\\%c", bytes[i]);
        else
            text_.put(text + i, length);
        i += length != 0 ? length : 1;
    }
    text_.put("\"", 1);
}

// Without printf, which takes more of a small stack.
void JsonOutput::frame(const void *address) {
    char place[PATH_MAX + 32];
    uintptr_t offset = 0;
    const size_t length = paths_.place(address, std::span(place, PATH_MAX), offset);
    if (length == 0)
        offset = reinterpret_cast<uintptr_t>(address);
    char *end = stpcpy(place + length, length != 0 ? "+0x" : "0x");
    end = std::to_chars(end, std::end(place), offset, 16).ptr;
    string(place, static_cast<size_t>(end - place));
}

void JsonOutput::chain(const char *name, std::span<void *const> frames, std::span<void *const> further) {
    text_.print("\"%s\":[", name);
    const char *separator = "";
    for (const auto part : {frames, further}) {
        for (const void *address : part) {
            text_.print("%s", separator);
            frame(address);
            separator = ",";
        }
    }
    text_.print("]");
}

} // namespace k42mc::internal
