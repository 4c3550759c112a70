#include "base/text_output.h"

#include "platform/platform.h"

#include <algorithm>
#include <stdarg.h>

namespace k42mc::internal {

void TextOutput::put(const char *text, size_t size) {
    while (size > 0) {
        if (length_ == buffer_.size())
            flush();
        const size_t piece = std::min(size, buffer_.size() - length_);
        memcpy(buffer_.data() + length_, text, piece);
        length_ += piece;
        text += piece;
        size -= piece;
    }
}

void TextOutput::print(const char *format, ...) {
    for (int tries = 0; tries < 2; ++tries) {
        const size_t room = buffer_.size() - length_;
        va_list arguments;
        va_start(arguments, format);
        const int length = vsnprintf(buffer_.data() + length_, room, format, arguments);
        va_end(arguments);
        if (length < 0)
            return;
        if (static_cast<size_t>(length) < room) {
            length_ += static_cast<size_t>(length);
            return;
        }
        if (length_ == 0) { // longer than the whole buffer
            length_ = room - 1;
            return;
        }
        flush();
    }
}

void TextOutput::symbols(std::span<void *const> frames) {
    flush();
    platform::backtrace_symbols_fd(frames.data(), static_cast<int>(frames.size()), descriptor_);
}

int TextOutput::flush() {
    if (length_ > 0 && failure_ == 0) {
        if (terminal_ != nullptr)
            terminal_->write(buffer_.data(), length_);
        else
            failure_ = platform::write_all(descriptor_, buffer_.data(), length_);
    }
    length_ = 0;
    return failure_;
}

} // namespace k42mc::internal
