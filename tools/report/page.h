// The files in page/, as they are when the command is built.
#pragma once

#include <string_view>

namespace page {

extern const std::string_view html;
extern const std::string_view css;
extern const std::string_view js;

} // namespace page
