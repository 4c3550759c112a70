// Keys as bit strings. Bit 0 is the most significant bit of the first byte in memory.
#ifndef K42MC_ALGORITHMS_BITS_HPP
#define K42MC_ALGORITHMS_BITS_HPP

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

namespace k42mc::bits {

// Reads from any address, aligned or not.
template <class Value> Value load(const void *address) {
    Value value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

inline bool bit_at(const uint8_t *key, int bit) {
    const auto index = static_cast<unsigned>(bit);
    return key[index / 8] >> (7 - index % 8) & 1;
}

constexpr int DSLeadingZeros(uint8_t byte) {
    return std::countl_zero(byte);
}

// The first bit, from the byte that holds bit `start` on, in which a and b differ before bit `limit`, or
// `limit`. They must agree in what comes before start in its byte. 0 <= start < limit.
inline int DSFirstDiffBit(const uint8_t *a, const uint8_t *b, int start, int limit) {
    const auto end = (static_cast<size_t>(limit) + 7) / 8;
    auto byte = static_cast<size_t>(start) / 8;
    while (end - byte >= sizeof(size_t) && load<size_t>(a + byte) == load<size_t>(b + byte))
        byte += sizeof(size_t);
    for (; byte < end; ++byte)
        if (const auto difference = static_cast<uint8_t>(a[byte] ^ b[byte]))
            return std::min(static_cast<int>(8 * byte) + DSLeadingZeros(difference), limit);
    return limit;
}

// Whether a and b differ in their first `bits` bits.
inline bool DSKeyDiffers(const uint8_t *a, const uint8_t *b, int bits) {
    if (bits == 8 * static_cast<int>(sizeof(uintptr_t))) // addresses are the keys that count
        return load<uintptr_t>(a) != load<uintptr_t>(b);
    const auto whole = static_cast<size_t>(bits) / 8;
    const int rest = bits % 8;
    return std::memcmp(a, b, whole) != 0 || (rest && (a[whole] ^ b[whole]) >> (8 - rest));
}

} // namespace k42mc::bits

#endif
