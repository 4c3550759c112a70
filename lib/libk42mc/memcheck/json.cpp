#include "memcheck/json.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace k42mc {
namespace {

// The length of the character at the front in valid UTF-8, or 0.
size_t character_length(const unsigned char *text) {
    const unsigned char first = text[0];
    if (first < 0x80)
        return 1;
    const size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    for (size_t i = 1; i < length; ++i)
        if ((text[i] & 0xc0) != 0x80)
            return 0;
    // Neither longer than need be, nor half a surrogate pair, nor past the last character.
    const bool odd = (first == 0xe0 && text[1] < 0xa0) || (first == 0xed && text[1] >= 0xa0) ||
                     (first == 0xf0 && text[1] < 0x90) || (first == 0xf4 && text[1] >= 0x90);
    return odd ? 0 : length;
}

} // namespace

void JsonWriter::put_byte(char byte) {
    if (used_ == sizeof buffer_)
        flush();
    buffer_[used_++] = last_ = byte;
}

void JsonWriter::flush() {
    for (size_t done = 0; done < used_ && error_ == 0;) {
        const ssize_t written = write(descriptor_, buffer_ + done, used_ - done);
        if (written > 0)
            done += static_cast<size_t>(written);
        else if (written == 0 || errno != EINTR)
            error_ = written == 0 ? EIO : errno;
    }
    used_ = 0;
}

int JsonWriter::finish() {
    flush();
    return error_;
}

void JsonWriter::put(const char *text) {
    while (*text)
        put_byte(*text++);
}

void JsonWriter::put(uint64_t number) {
    char digits[24];
    char *first = digits + sizeof digits;
    *--first = 0;
    do
        *--first = static_cast<char>('0' + number % 10);
    while (number /= 10);
    put(first);
}

void JsonWriter::put_string(const char *text) {
    put_byte('"');
    while (*text) {
        const auto *const bytes = reinterpret_cast<const unsigned char *>(text);
        const size_t length = character_length(bytes);
        if (length == 0) {
            put("\\ufffd");
        } else if (*bytes < 0x20 || *bytes == 0x7f) {
            put("\\u00");
            put_byte("0123456789abcdef"[*bytes / 16]);
            put_byte("0123456789abcdef"[*bytes % 16]);
        } else {
            if (*text == '"' || *text == '\\')
                put_byte('\\');
            for (size_t i = 0; i < length; ++i)
                put_byte(text[i]);
        }
        text += length ? length : 1;
    }
    put_byte('"');
}

void JsonWriter::open_member(const char *name) {
    if (last_ != '{')
        put_byte(',');
    put_string(name);
    put_byte(':');
}

void JsonWriter::member(const char *name, uint64_t value) {
    open_member(name);
    put(value);
}

void JsonWriter::member(const char *name, const char *value) {
    open_member(name);
    put_string(value);
}

} // namespace k42mc
