#include "tools/report/html.h"

#include "tools/report/page.h"
#include "tools/report/page_data.h"

#include <string_view>

namespace {

// Fits between script tags, whatever names the program has: in JSON, "<" stands only in strings.
void put_escaped(std::ostream &out, std::string_view data) {
    for (size_t at; (at = data.find('<')) != std::string_view::npos; data.remove_prefix(at + 1))
        out << data.substr(0, at) << "\\u003c";
    out << data;
}

} // namespace

void print_html(std::ostream &out, const Report &report, Order order, Names &names) {
    std::string_view rest = page::html;
    const auto put_up_to = [&](std::string_view mark) {
        const size_t at = rest.find(mark);
        out << rest.substr(0, at);
        rest.remove_prefix(at + mark.size());
    };
    put_up_to("/* style */");
    out << page::css;
    put_up_to("/* report */");
    put_page_data([&](std::string_view data) { put_escaped(out, data); }, report, order, names);
    put_up_to("/* script */");
    out << page::js << rest;
}
