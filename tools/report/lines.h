// The lines of a file or a text, with memory for one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

class Lines {
public:
    // No line of a report is longer.
    static constexpr size_t longest = 1 << 20;

    explicit Lines(std::string_view text) : buffer_(text) {}

    // Reads a descriptor to its end, and tells how many bytes it got. What cannot be read throws
    // std::system_error.
    using OnRead = std::function<void(uint64_t bytes)>;
    Lines(int descriptor, OnRead on_read) : descriptor_(descriptor), on_read_(std::move(on_read)) {}

    // Whether the first lines begin so, blanks aside.
    bool begin_with(std::string_view start);

    // Goes to the next line. False at the end.
    bool next();

    // Without its end; of one that is too long, the start.
    std::string_view line() const { return std::string_view(buffer_).substr(begin_, length_); }
    bool is_too_long() const { return too_long_; }
    uint64_t number() const { return number_; }

private:
    bool read_more();
    size_t find_end();
    size_t skip_to_end();

    int descriptor_ = -1;
    OnRead on_read_;
    std::string buffer_;
    size_t begin_ = 0; // of the line, in the buffer
    size_t length_ = 0;
    size_t next_ = 0; // begin of the next
    bool too_long_ = false;
    uint64_t number_ = 0;
};
