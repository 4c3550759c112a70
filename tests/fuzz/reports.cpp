// Any bytes as a report: whatever they are, they are read, or told of, and the outputs can be made.
#include "tools/report/findings.h"
#include "tools/report/html.h"
#include "tools/report/machine.h"
#include "tools/report/pprof.h"
#include "tools/report/reader.h"
#include "tools/report/table.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    Report report;
    Lines lines(text), again(text);
    read_text(report, "text", lines);
    read_json(report, "json", again);
    Symbolizer symbolizer;
    std::ostringstream out;
    print_table(out, report, {}, symbolizer);
    print_folded(out, report, symbolizer);
    print_csv(out, report, Order::growth, symbolizer);
    print_pprof(out, report, symbolizer);
    print_html(out, report, Order::age, symbolizer);
    Findings(report, LeakCheck::held, "").print(out, symbolizer);
    return 0;
}
