// JSON on its way to a descriptor: what the checkers' lines are made of. Allocates nothing.
#pragma once

#include "base/text_output.h"
#include "platform/platform.h"

namespace k42mc::internal {

class JsonOutput {
public:
    // Of the format of the lines, told at the start of a report: a reader that knows less refuses them.
    static constexpr unsigned version = 1;

    // cppcheck-suppress uninitMemberVar ; what is not written yet is never read
    explicit JsonOutput(int descriptor) : text_(buffer_, descriptor) {}

    TextOutput *operator->() { return &text_; }

    // In quotes. What is no UTF-8 becomes the replacement character.
    void string(const char *text) { string(text, strlen(text)); }

    // A member: return addresses, innermost first, as "module+0xoffset".
    void chain(const char *name, std::span<void *const> frames, std::span<void *const> further = {});

private:
    void string(const char *text, size_t size);
    void frame(const void *address);

    // As much as small stacks have room for.
    char buffer_[3584];
    platform::ModulePaths paths_;
    TextOutput text_;
};

} // namespace k42mc::internal
