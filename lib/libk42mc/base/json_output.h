// JSON on its way to a descriptor: what the checkers' lines are made of. Allocates nothing.
#pragma once

#include "linkage/linkage.h"

#include <span>
#include <string.h>

namespace k42mc::internal {

// The first failure is kept, and nothing is written after it.
class JsonOutput {
public:
    // Of the format of the lines, told at the start of a report: a reader that knows less refuses them.
    static constexpr unsigned version = 1;

    explicit JsonOutput(int descriptor) : descriptor_(descriptor) {}

    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);

    // In quotes. What is no UTF-8 becomes the replacement character.
    void string(const char *text) { string(text, strlen(text)); }

    // A member: return addresses, innermost first, as "module+0xoffset".
    void chain(const char *name, std::span<void *const> frames);

    // Returns 0 or what went wrong.
    int flush();

private:
    void put(const char *bytes, size_t size);
    void string(const char *text, size_t size);
    void frame(const void *address);

    const int descriptor_;
    int failure_ = 0;
    size_t length_ = 0;
    char buffer_[4096] = {};
};

} // namespace k42mc::internal
