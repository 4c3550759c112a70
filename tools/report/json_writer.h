// JSON on its way out, a piece at a time: all of it may not fit into memory.
#pragma once

#include <charconv>
#include <concepts>
#include <functional>
#include <string>
#include <string_view>

using Put = std::function<void(std::string_view piece)>;

// All text from elsewhere goes through here. In ASCII, it does nothing to a terminal; what is no UTF-8 becomes the
// replacement character.
class JsonWriter {
public:
    explicit JsonWriter(const Put &put) : put_(put) {}
    JsonWriter(const JsonWriter &) = delete;
    JsonWriter &operator=(const JsonWriter &) = delete;
    ~JsonWriter() { put_(piece_ += '\n'); }

    void open(char bracket);
    void close(char bracket);
    void name(std::string_view name);
    void line(); // what follows begins one

    void value(std::string_view text);
    template <std::integral Number> void value(Number number) {
        char digits[24];
        put_plain({digits, std::to_chars(digits, digits + sizeof digits, number).ptr});
    }
    void value(bool truth) { put_plain(truth ? "true" : "false"); }
    void value(const char *text) { value(std::string_view(text)); } // else it would be a truth

    void open(std::string_view name, char bracket) {
        this->name(name);
        open(bracket);
    }
    template <class Value> void member(std::string_view name, const Value &value) {
        this->name(name);
        this->value(value);
    }

private:
    void separate();
    void put_plain(std::string_view text);
    void put_quoted(std::string_view text);

    const Put &put_;
    std::string piece_;
    bool follows_ = false; // an element of the same list
};
