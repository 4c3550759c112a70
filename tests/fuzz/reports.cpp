// Any bytes as a report: whatever they are, they are read, or told of, and the outputs can be made.
#include "tools/report/machine.h"
#include "tools/report/reader.h"
#include "tools/report/table.h"

#include <nlohmann/json.hpp>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    Report report;
    read_text(report, "text", text);
    read_json(report, "json", text);
    Symbolizer symbolizer;
    std::ostringstream out;
    print_table(out, report, {}, symbolizer);
    print_folded(out, report, symbolizer);
    return 0;
}
