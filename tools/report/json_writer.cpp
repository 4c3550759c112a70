#include "tools/report/json_writer.h"

#include "tools/common/characters.h"

namespace {

void add_escaped(std::string &piece, uint32_t unit) {
    constexpr const char *digits = "0123456789abcdef";
    piece += {'\\',
              'u',
              digits[unit >> 12],
              digits[unit >> 8 & 15],
              digits[unit >> 4 & 15],
              digits[unit & 15]};
}

void add_character(std::string &piece, uint32_t code) {
    if (code >= 0x10000) {
        add_escaped(piece, 0xd800 + ((code - 0x10000) >> 10));
        add_escaped(piece, 0xdc00 + (code & 0x3ff));
    } else if (code < 0x20 || code >= 0x7f) {
        add_escaped(piece, code);
    } else {
        if (code == '"' || code == '\\')
            piece += '\\';
        piece += static_cast<char>(code);
    }
}

} // namespace

void JsonWriter::separate() {
    constexpr size_t long_piece = 1 << 16;
    if (piece_.size() > long_piece) {
        put_(piece_);
        piece_.clear();
    }
    if (follows_)
        piece_ += ',';
    follows_ = true;
}

void JsonWriter::put_plain(std::string_view text) {
    separate();
    piece_ += text;
}

void JsonWriter::put_quoted(std::string_view text) {
    constexpr uint32_t replacement = 0xfffd;
    separate();
    piece_ += '"';
    while (!text.empty()) {
        const Character character = character_at(text);
        add_character(piece_, character.length != 0 ? character.code : replacement);
        text.remove_prefix(character.length != 0 ? character.length : 1);
    }
    piece_ += '"';
}

void JsonWriter::open(char bracket) {
    separate();
    piece_ += bracket;
    follows_ = false;
}

void JsonWriter::close(char bracket) {
    piece_ += bracket;
    follows_ = true;
}

void JsonWriter::name(std::string_view name) {
    put_quoted(name);
    piece_ += ':';
    follows_ = false;
}

void JsonWriter::line() {
    separate();
    piece_ += '\n';
    follows_ = false;
}

void JsonWriter::value(std::string_view text) {
    put_quoted(text);
}
