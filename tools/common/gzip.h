// Data on its way out, packed as gzip does.
#pragma once

#include <ostream>
#include <string_view>

void put_gzipped(std::ostream &out, std::string_view data);
