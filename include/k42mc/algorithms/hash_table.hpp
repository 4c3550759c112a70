// The algorithms of the hash table, over links. What they need to know of keys are parameters:
//   hash(link)   the hash of the key of a link's element;
//   match(link)  whether a link's element is the one sought.
#ifndef K42MC_ALGORITHMS_HASH_TABLE_HPP
#define K42MC_ALGORITHMS_HASH_TABLE_HPP

#include <k42mc/algorithms/bits.hpp>
#include <k42mc/ht.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

namespace k42mc::hash_table {

// ---- Sizes ----

inline constexpr uint32_t bucket_counts[] = {31,   63,   127,  251,   509,   1021,
                                             2039, 4093, 8191, 16381, 32749, 65521};

// The first two rows are never current: with them there is a row two below every size.
inline constexpr auto size_rows = [] {
    std::array<HTSizeRow, 2 + std::size(bucket_counts)> rows{};
    std::ranges::transform(bucket_counts, &rows[2], [](uint32_t buckets) {
        return HTSizeRow{buckets, 8 * buckets};
    });
    rows.back().growAt = UINT32_MAX;
    return rows;
}();
inline constexpr const HTSizeRow *first_size = &size_rows[2];

// Division by a constant d as a multiplication. With s = floor(log2(d)), all 32-bit n have
//   n / d = (n * factor + addend) >> (32 + s),
// where factor is 2^(32+s) / d rounded up and addend 0, or factor is rounded down and addend the same.
// Either is exact when factor * d is at most 2^s away from 2^(32+s), and for one of the two it is.
struct Reciprocal {
    uint32_t factor;
    uint32_t addend;
};

constexpr int floor_log2(uint32_t value) {
    return static_cast<int>(std::bit_width(value)) - 1;
}

constexpr Reciprocal reciprocal_of(uint32_t divisor) {
    const int s = floor_log2(divisor);
    const uint64_t power = uint64_t{1} << (32 + s);
    const auto down = static_cast<uint32_t>(power / divisor);
    return power % divisor <= uint64_t{1} << s ? Reciprocal{down, down} : Reciprocal{down + 1, 0};
}

constexpr bool is_exact(Reciprocal reciprocal, uint32_t divisor) {
    const int s = floor_log2(divisor);
    const uint64_t power = uint64_t{1} << (32 + s), most = uint64_t{1} << s;
    const uint64_t product = uint64_t{reciprocal.factor} * divisor;
    return reciprocal.addend
               ? reciprocal.addend == reciprocal.factor && product < power && power - product <= most
               : product >= power && product - power <= most;
}

// The counts have 5 to 16 bits, no two as many, which leads from each to its reciprocal.
constexpr size_t reciprocal_index(uint32_t buckets) {
    return static_cast<size_t>(floor_log2(buckets) - floor_log2(bucket_counts[0]));
}

inline constexpr auto reciprocals = [] {
    std::array<Reciprocal, std::size(bucket_counts)> all{};
    for (const uint32_t buckets : bucket_counts)
        all[reciprocal_index(buckets)] = reciprocal_of(buckets);
    return all;
}();
static_assert(std::ranges::all_of(bucket_counts, [](uint32_t buckets) {
    return is_exact(reciprocals[reciprocal_index(buckets)], buckets);
}));

// hash % buckets.
constexpr uint32_t bucket_index(uint32_t hash, uint32_t buckets) {
    const Reciprocal reciprocal = reciprocals[reciprocal_index(buckets)];
    const uint64_t product = uint64_t{hash} * reciprocal.factor + reciprocal.addend;
    const uint32_t quotient = static_cast<uint32_t>(product >> 32) >> floor_log2(buckets);
    return hash - quotient * buckets;
}

// ---- Hashes ----

inline uint32_t hash_4_bytes(const void *key) {
    return bits::load<uint32_t>(key);
}

// Each byte's weight depends on how many bytes follow. Blocks of eight with the weights worked out
// beforehand leave one multiplication in a block that waits for the block before.
inline constexpr size_t block_size = 8;
constexpr std::array<uint32_t, block_size + 1> powers() {
    std::array<uint32_t, block_size + 1> all{1};
    for (size_t i = 1; i < all.size(); ++i)
        all[i] = all[i - 1] * 65587;
    return all;
}
inline constexpr auto weights = powers();

template <size_t... index> uint32_t hash_of_block(const uint8_t *block, std::index_sequence<index...>) {
    return (... + (block[index] * weights[block_size - 1 - index]));
}

inline uint32_t hash_bytes(const void *key, size_t length) {
    const auto *at = static_cast<const uint8_t *>(key);
    const uint8_t *const end = at + length;
    uint32_t hash = 0;
    for (size_t following = length % block_size; following-- > 0;)
        hash += *at++ * weights[following];
    for (; at != end; at += block_size)
        hash = hash * weights[block_size] + hash_of_block(at, std::make_index_sequence<block_size>());
    return hash;
}

// ---- Chains ----

inline HTLink **bucket_of(const HTTable *table, uint32_t hash) {
    return table->buckets + bucket_index(hash, table->sizeRow->buckets);
}

inline void push(HTLink **bucket, HTLink *link) {
    link->next = *bucket;
    *bucket = link;
}

// What leads to the first link in a chain that matches, or the null at its end.
template <class Match> HTLink **find(HTLink **at, const Match &match) {
    while (*at && !match(*at))
        at = &(*at)->next;
    return at;
}

// Unlinks and returns what find() found; null for null.
inline HTLink *remove_found(HTTable *table, HTLink **at) {
    HTLink *link = *at;
    if (link) {
        *at = link->next;
        --table->count;
    }
    return link;
}

// Unlinks and returns a link, or returns null when it is not in the table.
template <class Hash> HTLink *remove(HTTable *table, const HTLink *link, const Hash &hash) {
    return remove_found(
        table, find(bucket_of(table, hash(link)), [=](const HTLink *at) { return at == link; }));
}

// ---- Changes of size ----

// Empties the buckets, last to first, each from the front, and hands over each link, whose memory may go
// away at once.
template <class HandOver> void take_apart(HTTable *table, HandOver hand_over) {
    for (uint32_t i = table->sizeRow->buckets; i-- > 0;) {
        for (HTLink *link = table->buckets[i], *next; link; link = next) {
            next = link->next;
            hand_over(link);
        }
        table->buckets[i] = nullptr;
    }
}

// Moves everything to the buckets of another size, or nothing when there is no memory for them. Rare,
// and kept out of the way of insertions.
template <class Hash>
__attribute__((noinline)) void resize(HTTable *table, const HTSizeRow *row, const Hash &hash) {
    const size_t size = row->buckets * sizeof(HTLink *);
    void *memory = table->alloc(size);
    if (!memory)
        return;
    auto *buckets = static_cast<HTLink **>(std::memset(memory, 0, size));
    if (table->count)
        take_apart(table, [=, &hash](HTLink *link) {
            push(buckets + bucket_index(hash(link), row->buckets), link);
        });
    table->dealloc(table->buckets);
    table->buckets = buckets;
    table->sizeRow = row;
}

// Whether `count` elements are too few for the size: fewer than fit into the one two below. So those
// that come and go near a threshold do not change the size each time.
inline bool is_sparse(const HTTable *table, uint32_t count) {
    return count < table->sizeRow[-2].growAt;
}

// Goes back to the smallest size that the elements fit into, from a larger one.
template <class Hash> void fit(HTTable *table, const Hash &hash) {
    const HTSizeRow *row = table->sizeRow;
    while (row[-1].growAt > table->count)
        --row;
    resize(table, row, hash);
}

// Before an insertion. A table whose count got past the threshold in another way grows no more.
template <class Hash> void make_room(HTTable *table, const Hash &hash) {
    const uint32_t count = table->count + 1;
    const HTSizeRow *row = table->sizeRow;
    if (count == row->growAt && row->growAt != UINT32_MAX)
        resize(table, row + 1, hash);
    else if (is_sparse(table, count))
        fit(table, hash);
}

// ---- Insertion ----

inline void link_into(HTTable *table, HTLink **bucket, HTLink *link) {
    push(bucket, link);
    ++table->count;
}

template <class Hash> void insert(HTTable *table, HTLink *link, const Hash &hash) {
    make_room(table, hash);
    link_into(table, bucket_of(table, hash(link)), link);
}

// Links a link and returns null, or returns the first that matches.
template <class Hash, class Match>
HTLink *insert_unique(HTTable *table, HTLink *link, const Hash &hash, const Match &match) {
    make_room(table, hash);
    HTLink **bucket = bucket_of(table, hash(link));
    HTLink *present = *find(bucket, match);
    if (!present)
        link_into(table, bucket, link);
    return present;
}

// ---- Iteration ----

inline HTLink *first_from(const HTTable *table, HTLink **bucket) {
    HTLink **const end = table->buckets + table->sizeRow->buckets;
    while (bucket != end && !*bucket)
        ++bucket;
    return bucket == end ? nullptr : *bucket;
}

inline HTLink *first(const HTTable *table) {
    return table->count ? first_from(table, table->buckets) : nullptr;
}

template <class Hash> HTLink *next(const HTTable *table, const HTLink *link, const Hash &hash) {
    return link->next ? link->next : first_from(table, bucket_of(table, hash(link)) + 1);
}

// Ends at the first nonzero result, and returns it.
template <class Visit> int32_t visit(const HTTable *table, const Visit &visit_link) {
    for (const HTLink *link : std::span(table->buckets, table->sizeRow->buckets))
        for (; link; link = link->next)
            if (const int32_t result = visit_link(link))
                return result;
    return 0;
}

} // namespace k42mc::hash_table

#endif
