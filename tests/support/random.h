// Random numbers that differ from run to run. What fails says how to repeat it.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

class Random {
public:
    unsigned operator()() { return unsigned(generator()); }

private:
    const char *given = std::getenv("K42MC_SEED");
    unsigned seed = given ? unsigned(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::mt19937 generator{seed};
    testing::ScopedTrace trace{__FILE__, __LINE__, "repeat with K42MC_SEED=" + std::to_string(seed)};
};
