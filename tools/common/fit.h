// Text in the width that there is. Widths are in characters; none is limited where they are 0.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

inline constexpr size_t any_width = 0;

size_t width_of(std::string_view text);
bool fits(std::string_view text, size_t width);

// At least 1.
constexpr size_t left_behind(size_t taken, size_t width) {
    return width == any_width ? any_width : width > taken ? width - taken : 1;
}

// What is left of a path without its first folders, "…/net/http.c:12": at least the file.
std::string fit_path(std::string_view path, size_t width);

// The first words of a name, "net::Session::…": at least one.
std::string fit_name(std::string_view name, size_t width);

// Its start, wherever that ends.
std::string_view first_of(std::string_view text, size_t width);
