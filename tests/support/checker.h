// The memory checker in tests: reports on standard error, captured.
#pragma once

#include "capture.h"
#include "text.h"

#include <k42mc/k42mc.h>

inline std::string init(uint32_t file_type, uint32_t bitmap) {
    return captured_stderr([&] { MCInit(K42MC_BE32(file_type), K42MC_BE32(bitmap)); });
}

inline std::string checker_on(uint32_t bitmap = MC_TYPE_LKBF) {
    return init(MC_TO_STDERR, bitmap);
}

inline std::string checker_off() {
    return captured_stderr(MCDeinit);
}

class WithChecker : public testing::Test {
protected:
    void SetUp() override { checker_on(); }
    void TearDown() override { checker_off(); }
};

inline std::string report(uint32_t limit) {
    return captured_stderr([&] { MCReport(K42MC_BE32(limit)); });
}

inline std::string check(const void *block) {
    return captured_stderr([&] { MCCheck(K42MC_BE_ADDR(block)); });
}

inline uintptr_t number(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

// As reports print it.
inline std::string address(const void *block) {
    char text[32];
    snprintf(text, sizeof text, "0x%lX", static_cast<unsigned long>(number(block)));
    return text;
}

struct Count {
    unsigned long long bytes = 0, count = 0;
};

struct Counts {
    Count held, allocated, freed;
};

// One line of a report's counters.
inline std::string counters(const char *type, const Counts &counts) {
    const auto &[held, allocated, freed] = counts;
    char text[200];
    snprintf(text, sizeof text, "%s: %10llu(%llu); +%llu(%llu), -%llu(%llu)\n", type, held.bytes,
             held.count, allocated.bytes, allocated.count, freed.bytes, freed.count);
    return text;
}

// The part of a report about blocks of which all are of the standard type.
inline std::string totals(const char *since, const Counts &counts) {
    std::string text = std::string("\n#### ") + since + ": " + std::to_string(counts.held.bytes) +
                       " bytes held by " + std::to_string(counts.held.count) + " allocations ####\n" +
                       counters("STD", counts);
    for (const char *type : {"SYS", "FIX", "VAR", "SHM"})
        text += counters(type, {});
    return text;
}

// A whole report of such blocks.
inline std::string report_text(unsigned cycle, const std::string &blocks, const Counts &this_cycle,
                               const Counts &since_reset) {
    return "-----------<cycle " + std::to_string(cycle) + ">-----------\n{\n" + blocks +
           totals("This cycle", this_cycle) + totals("Since reset", since_reset) + "}\n";
}
