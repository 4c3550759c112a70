// The symbol lines of frames that come up again and again in one listing: each is looked up in its module's file once.
#pragma once

#include "base/text_output.h"
#include "platform/platform.h"

#include <stdint.h>

namespace k42mc::internal {

class SymbolLines {
public:
    SymbolLines() = default;
    ~SymbolLines() {
        if (lines_ != nullptr)
            platform::unmap_memory(lines_, bytes);
    }
    SymbolLines(const SymbolLines &) = delete;
    SymbolLines &operator=(const SymbolLines &) = delete;

    // As TextOutput::symbols.
    void put(TextOutput &out, std::span<void *const> frames);

private:
    struct Line {
        void *frame;
        uint16_t length; // 0 for one that has no room here
        char text[512 - sizeof(void *) - sizeof(uint16_t)];
    };

    static constexpr size_t room = 256, bytes = room * sizeof(Line);

    const Line &line_of(void *frame);

    Line *lines_ = nullptr; // until there is something to list; and where there is no memory
};

} // namespace k42mc::internal
