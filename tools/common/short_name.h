// Names of C++ functions, as short as people say them.
#pragma once

#include <string>
#include <string_view>

// "std::vector<…>::push_back" of "std::vector<int, std::allocator<int> >::push_back(int&&)": without parameters, result,
// inline namespaces of the standard library and what stands between angle brackets. Other names stay as they are.
std::string short_name(std::string_view demangled);
