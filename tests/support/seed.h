// Random runs differ from run to run and say how to repeat them: put SCOPED_TRACE(seed.text()) in a
// test.
#pragma once

#include <cstdlib>
#include <random>
#include <string>

struct Seed {
    const char *given = std::getenv("K42MC_SEED");
    unsigned value =
        given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();

    std::string text() const { return "repeat with K42MC_SEED=" + std::to_string(value); }
};
