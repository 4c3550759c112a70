#include "base/symbol_lines.h"

namespace k42mc::internal {

const SymbolLines::Line &SymbolLines::line_of(void *frame) {
    constexpr uint32_t spread = 2654435761u;
    Line &line = lines_[static_cast<uint32_t>(reinterpret_cast<uintptr_t>(frame)) * spread >> 24];
    static_assert(room == 1 << 8);
    if (line.frame != frame) {
        line.frame = frame;
        line.length = static_cast<uint16_t>(platform::symbol_line(frame, line.text));
    }
    return line;
}

void SymbolLines::put(TextOutput &out, std::span<void *const> frames) {
    if (lines_ == nullptr)
        lines_ = static_cast<Line *>(platform::map_memory(bytes));
    for (void *const &frame : frames) {
        const Line *line = lines_ != nullptr ? &line_of(frame) : nullptr;
        if (line != nullptr && line->length != 0)
            out.put(line->text, line->length);
        else
            out.symbols({&frame, 1});
    }
}

} // namespace k42mc::internal
