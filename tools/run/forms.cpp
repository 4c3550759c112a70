#include "tools/run/forms.h"

#include "tools/report/html.h"
#include "tools/report/sarif.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {

template <class Print> void write_file(const std::string &path, Print print) {
    if (path.empty())
        return;
    std::ofstream file(path);
    print(file);
    file.close();
    if (!file)
        throw std::runtime_error(path + ": " + strerror(errno));
}

} // namespace

void write_forms(const RunOptions &options, const Report &report, const Findings &findings,
                 Symbolizer &symbolizer) {
    Names names(symbolizer);
    write_file(options.html, [&](std::ostream &file) { print_html(file, report, Order::bytes, names); });
    write_file(options.sarif, [&](std::ostream &file) { print_sarif(file, findings, symbolizer); });
}
