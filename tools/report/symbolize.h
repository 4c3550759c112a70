// Functions and lines for the traces in a text.
#pragma once

#include "tools/common/symbols.h"

#include <istream>
#include <ostream>

// Copies the text. Behind each line that is a frame of a trace stands what is known of it.
void symbolize(std::istream &in, std::ostream &out, Symbolizer &symbolizer);
