#include "tools/report/lines.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace {

// Waits where the descriptor does not.
size_t read_some(int descriptor, char *bytes, size_t most) {
    for (;;) {
        const ssize_t got = read(descriptor, bytes, most);
        if (got >= 0)
            return static_cast<size_t>(got);
        if (errno == EAGAIN) {
            pollfd input = {descriptor, POLLIN, 0};
            poll(&input, 1, -1);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

} // namespace

bool Lines::read_more() {
    if (descriptor_ < 0)
        return false;
    std::array<char, 65536> bytes;
    const size_t got = read_some(descriptor_, bytes.data(), bytes.size());
    buffer_.append(bytes.data(), got);
    if (on_read_)
        on_read_(got);
    return got != 0;
}

bool Lines::begin_with(std::string_view start) {
    constexpr const char *blanks = " \t\r\n";
    size_t first;
    while (first = buffer_.find_first_not_of(blanks),
           first == std::string::npos || buffer_.size() - first < start.size())
        if (buffer_.size() > longest || !read_more())
            return false;
    return std::string_view(buffer_).substr(first).starts_with(start);
}

// Where the line ends; npos if that is too far away to be there yet.
size_t Lines::find_end() {
    for (size_t searched = begin_;;) {
        const size_t end = buffer_.find('\n', searched);
        if (end != std::string::npos || buffer_.size() - begin_ > longest)
            return end;
        buffer_.erase(0, begin_);
        begin_ = 0;
        searched = buffer_.size();
        if (!read_more())
            return buffer_.size();
    }
}

// Reads on without keeping what is beyond the longest line.
size_t Lines::skip_to_end() {
    for (;;) {
        buffer_.resize(begin_ + longest);
        if (!read_more())
            return buffer_.size();
        if (const size_t end = buffer_.find('\n', begin_ + longest); end != std::string::npos)
            return end;
    }
}

bool Lines::next() {
    begin_ = next_;
    size_t end = find_end();
    too_long_ = end == std::string::npos || end - begin_ > longest;
    if (end == std::string::npos)
        end = skip_to_end();
    if (begin_ == buffer_.size())
        return false;
    length_ = std::min(end - begin_, longest);
    next_ = std::min(end + 1, buffer_.size());
    ++number_;
    return true;
}
