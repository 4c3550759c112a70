// Random numbers that differ from run to run. What fails says how to repeat it.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

class Random {
public:
    unsigned operator()() { return unsigned(generator() >> 32); }

private:
    const char *given = std::getenv("K42MC_SEED");
    unsigned seed = given ? unsigned(std::strtoul(given, nullptr, 10)) : std::random_device()();
    // Its state is one number: where addresses have 32 bits, some of hundreds would be those of blocks.
    std::linear_congruential_engine<uint64_t, 6364136223846793005, 1442695040888963407, 0> generator{
        seed};
    testing::ScopedTrace trace{__FILE__, __LINE__, "repeat with K42MC_SEED=" + std::to_string(seed)};
};
