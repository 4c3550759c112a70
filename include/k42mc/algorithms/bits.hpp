// Keys as bit strings. Bit 0 is the most significant bit of the first byte in memory.
//
// A key is the address of its bytes, or a `word` where it fits into one and its length is known when the
// program is compiled. Both have the same functions.
#ifndef K42MC_ALGORITHMS_BITS_HPP
#define K42MC_ALGORITHMS_BITS_HPP

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace k42mc::bits {

// Reads from any address, aligned or not.
template <class Value> Value load(const void *address) {
    Value value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

// So many bytes as a number, the first its most significant: the order of keys is that of their numbers.
template <size_t Size> size_t big_endian(const void *bytes) {
    static_assert(std::endian::native == std::endian::little && Size <= sizeof(size_t));
    if constexpr (Size == 1) {
        return load<uint8_t>(bytes);
    } else if constexpr (Size == 2) {
        return __builtin_bswap16(load<uint16_t>(bytes));
    } else if constexpr (Size == 4) {
        return __builtin_bswap32(load<uint32_t>(bytes));
    } else if constexpr (Size == 8) {
        return static_cast<size_t>(__builtin_bswap64(load<uint64_t>(bytes)));
    } else {
        constexpr size_t front = std::bit_floor(Size);
        return big_endian<front>(bytes) << 8 * (Size - front) |
               big_endian<Size - front>(static_cast<const char *>(bytes) + front);
    }
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
    const auto found = [&](int zeros) { return std::min(static_cast<int>(8 * byte) + zeros, limit); };
    for (; end - byte >= sizeof(size_t); byte += sizeof(size_t))
        if (const size_t difference = load<size_t>(a + byte) ^ load<size_t>(b + byte))
            return found(std::countl_zero(big_endian<sizeof difference>(&difference)));
    for (; byte < end; ++byte)
        if (const auto difference = static_cast<uint8_t>(a[byte] ^ b[byte]))
            return found(DSLeadingZeros(difference));
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

// A key of at most as many bits as a word has, as a number.
template <int Bits> struct word {
    explicit word(const uint8_t *key) : value(big_endian<(Bits + 7) / 8>(key) >> (7 - (Bits - 1) % 8)) {}

    size_t value;
};

template <int Bits> bool bit_at(word<Bits> key, int bit) {
    return key.value >> (Bits - 1 - bit) & 1;
}

// Other than in memory, a and b must agree in all that comes before start.
template <int Bits> int DSFirstDiffBit(word<Bits> a, word<Bits> b, int /*start*/, int limit) {
    constexpr int unused = static_cast<int>(8 * sizeof(size_t)) - Bits;
    return std::min(std::countl_zero(a.value ^ b.value) - unused, limit);
}

template <int Bits> bool DSKeyDiffers(word<Bits> a, word<Bits> b, int /*bits*/) {
    return a.value != b.value;
}

// What a key of that many bits is best taken as.
template <int Bits>
using key =
    std::conditional_t<Bits <= static_cast<int>(8 * sizeof(size_t)), word<Bits>, const uint8_t *>;

} // namespace k42mc::bits

#endif
