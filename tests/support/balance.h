// Whether a report says that as much was freed as was allocated, and that something was.
#pragma once

#include <cstdio>
#include <string>

inline bool balanced(const std::string &report) {
    unsigned long long bytes, count, freed_bytes, freed_count;
    const size_t since = report.find("#### Since reset: 0 bytes held by 0 allocations ####\n");
    return since != std::string::npos &&
           sscanf(report.c_str() + report.find("STD:", since), "STD: 0(0); +%llu(%llu), -%llu(%llu)",
                  &bytes, &count, &freed_bytes, &freed_count) == 4 &&
           count > 0 && count == freed_count && bytes == freed_bytes;
}
