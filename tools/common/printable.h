// Text from reports and programs, on its way to a terminal.
#pragma once

#include <string>
#include <string_view>

// Keeps to its line and does nothing to the terminal: bytes that are no UTF-8, control characters, and
// those that change the direction of what follows become "\x1b".
std::string printable(std::string_view text);

// Its start, where it is long.
std::string shortened(std::string_view text);
