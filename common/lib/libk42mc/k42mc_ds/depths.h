// How deep the elements of a tree lie, as XXInfo prints it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace k42mc::internal::ds {

struct Depths {
    uint32_t count = 0;
    uint32_t sum = 0;
    uint8_t greatest = 0;

    void add(uint8_t depth) {
        ++count;
        sum += depth;
        greatest = std::max(greatest, depth);
    }

    double average() const { return static_cast<double>(sum) / count; }
};

inline void print_info(const char *banner, const Depths &depths) {
    std::puts(banner);
    if (depths.count) {
        std::printf("> number of entries : %u\n", depths.count);
        std::printf("> max height        : %u\n", depths.greatest);
        std::printf("> average height    : %f\n", depths.average());
    } else {
        std::puts(">>>>> EMPTY <<<<<");
    }
    std::fflush(stdout);
}

} // namespace k42mc::internal::ds
