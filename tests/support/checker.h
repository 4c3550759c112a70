// The memory checker in tests: reports on standard error, captured.
#pragma once

#include "capture.h"

#include <gtest/gtest.h>
#include <k42mc/k42mc.h>
#include <string>

inline void checker_on(uint32_t bitmap = MC_TYPE_LKBF) {
    captured_stderr([&] { MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(bitmap)); });
}

inline void checker_off() {
    captured_stderr(MCDeinit);
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

inline bool has_backtrace(const void *block) {
    return check(block).find("\nBacktrace of the allocation:\n") != std::string::npos;
}

// As reports print it.
inline std::string address(const void *block) {
    char text[32];
    snprintf(text, sizeof text, "0x%lX", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(block)));
    return text;
}

struct Count {
    unsigned long long bytes = 0, count = 0;
};

// One line of a report's counters.
inline std::string counters(const char *type, Count held, Count allocated, Count freed) {
    char text[200];
    snprintf(text, sizeof text, "%s: %10llu(%llu); +%llu(%llu), -%llu(%llu)\n", type, held.bytes,
             held.count, allocated.bytes, allocated.count, freed.bytes, freed.count);
    return text;
}

// The lines of a report in which only blocks of the standard type were seen.
inline std::string standard_counters(Count held, Count allocated, Count freed) {
    std::string lines = counters("STD", held, allocated, freed);
    for (const char *type : {"SYS", "FIX", "VAR", "SHM"})
        lines += counters(type, {}, {}, {});
    return lines;
}
