#include "tools/common/fit.h"

#include "tools/common/characters.h"

#include <algorithm>

namespace {

constexpr std::string_view ellipsis = "…";

bool ends_word(char letter) {
    return std::string_view(":,. _<>()/").find(letter) != std::string_view::npos;
}

size_t bytes_of_first(std::string_view text) {
    return std::max<size_t>(character_at(text).length, 1);
}

} // namespace

size_t width_of(std::string_view text) {
    size_t width = 0;
    for (; !text.empty(); ++width)
        text.remove_prefix(bytes_of_first(text));
    return width;
}

std::string_view first_of(std::string_view text, size_t width) {
    size_t end = 0;
    for (size_t i = 0; i < width && end < text.size(); ++i)
        end += bytes_of_first(text.substr(end));
    return text.substr(0, end);
}

bool fits(std::string_view text, size_t width) {
    return width == any_width || width_of(text) <= width;
}

std::string fit_path(std::string_view path, size_t width) {
    if (fits(path, width))
        return std::string(path);
    for (size_t slash = path.find('/', 1); slash != std::string_view::npos; slash = path.find('/', 1)) {
        path.remove_prefix(slash);
        if (width_of(path) < width)
            break;
    }
    return std::string(path.starts_with('/') ? ellipsis : "").append(path);
}

std::string fit_name(std::string_view name, size_t width) {
    if (fits(name, width))
        return std::string(name);
    size_t end = 0; // of what fits
    for (size_t at = 1; at < name.size(); ++at)
        if (ends_word(name[at - 1]) && !ends_word(name[at])) {
            if (end != 0 && width_of(name.substr(0, at)) >= width)
                break;
            end = at;
        }
    return end == 0 ? std::string(name) : std::string(name.substr(0, end)).append(ellipsis);
}
