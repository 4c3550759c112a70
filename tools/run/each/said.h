// What a program says on one of its streams: enough to see whether two runs say the same.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

struct Said {
    uint64_t size = 0;
    uint64_t hash = 0xcbf29ce484222325;
    std::string start = {}; // to be shown

    void add(std::string_view piece) {
        constexpr size_t most_shown = 4096;
        size += piece.size();
        for (const char letter : piece)
            hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3;
        start += piece.substr(0, most_shown - std::min(start.size(), most_shown));
    }

    bool operator==(const Said &other) const { return size == other.size && hash == other.hash; }
};
