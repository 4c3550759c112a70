// The report as a page: one file, without anything from elsewhere.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <ostream>

void print_html(std::ostream &out, const nlohmann::json &report);
