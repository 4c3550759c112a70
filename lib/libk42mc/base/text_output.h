// Text on its way to a descriptor or to standard error. Allocates nothing.
#pragma once

#include "base/standard_error.h"

#include <span>
#include <string.h>

namespace k42mc::internal {

// Gathers text in a buffer of the caller's. The first failure is kept, and nothing is written after it.
class TextOutput {
public:
    TextOutput(std::span<char> buffer, int descriptor) : buffer_(buffer), descriptor_(descriptor) {}
    TextOutput(std::span<char> buffer, const StandardError &terminal)
        : buffer_(buffer), descriptor_(terminal.descriptor()), terminal_(&terminal) {}

    void put(const char *text, size_t size);
    void put(const char *text) { put(text, strlen(text)); }

    // At most as much text as the buffer has room for.
    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);

    // Symbol lines of a stack trace, one a frame.
    void symbols(std::span<void *const> frames);

    // Returns 0 or what went wrong.
    int flush();

private:
    const std::span<char> buffer_;
    const int descriptor_;
    const StandardError *const terminal_ = nullptr;
    size_t length_ = 0;
    int failure_ = 0;
};

// Text for standard error, written as one piece where it can be.
class StandardErrorText {
public:
    // cppcheck-suppress uninitMemberVar ; what is not written yet is never read
    StandardErrorText() = default;
    ~StandardErrorText() { text_.flush(); }
    StandardErrorText(const StandardErrorText &) = delete;
    StandardErrorText &operator=(const StandardErrorText &) = delete;

    TextOutput &operator*() { return text_; }
    TextOutput *operator->() { return &text_; }

private:
    const StandardError terminal_;
    char buffer_[1024];
    TextOutput text_{buffer_, terminal_};
};

} // namespace k42mc::internal
