// What the fuzz targets share: operations read from the input, and an expectation that ends the run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

class Input {
public:
    Input(const uint8_t *data, size_t size) : at(data), end(data + size) {}

    bool more() const { return at < end; }
    uint8_t byte() { return at < end ? *at++ : 0; }

private:
    const uint8_t *at;
    const uint8_t *end;
};

#define REQUIRE(condition)                                                                              \
    do {                                                                                                \
        if (!(condition)) {                                                                             \
            dprintf(2, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                          \
            std::abort();                                                                               \
        }                                                                                               \
    } while (0)

// Checks print that all is well.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    return std::freopen("/dev/null", "w", stdout) == nullptr;
}
