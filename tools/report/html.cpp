#include "tools/report/html.h"

#include "tools/report/page.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace {

// Fits between script tags, whatever names the program has.
std::string data_of(const nlohmann::json &report) {
    std::string data = report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    for (size_t at = 0; (at = data.find('<', at)) != std::string::npos;)
        data.replace(at, 1, "\\u003c");
    return data;
}

} // namespace

void print_html(std::ostream &out, const nlohmann::json &report) {
    std::string_view rest = page::html;
    const std::string data = data_of(report);
    for (const auto &[mark, text] :
         {std::pair<std::string_view, std::string_view>{"/* style */", page::css},
          {"/* report */", data},
          {"/* script */", page::js}}) {
        const size_t at = rest.find(mark);
        out << rest.substr(0, at) << text;
        rest.remove_prefix(at + mark.size());
    }
    out << rest;
}
