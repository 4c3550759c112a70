// Longest match in tables of prefixes such as the Internet's routers have, beside one hash table for
// each length.
#include "bench.h"

#include <k42mc/px.hpp>

#include <array>
#include <iterator>
#include <unordered_map>

namespace {

using namespace bench;

constexpr size_t table_size = 200000;

struct Share {
    int length;
    double percent;
};

// What routers see, give or take a percent, and the first bytes of addresses in use.
struct IPv4 {
    static constexpr const char *family = "PX IPv4";
    static constexpr size_t bytes = 4;
    static constexpr Share shares[] = {{8, 0.1},  {12, 0.1},  {13, 0.1}, {14, 0.2}, {15, 0.2},
                                       {16, 1.5}, {17, 0.9},  {18, 1.5}, {19, 2.7}, {20, 4.5},
                                       {21, 5.2}, {22, 11.5}, {23, 10},  {24, 61.5}};
    static uint8_t first_byte(uint32_t random) { return static_cast<uint8_t>(1 + random % 223); }
};

struct IPv6 {
    static constexpr const char *family = "PX IPv6";
    static constexpr size_t bytes = 16;
    static constexpr Share shares[] = {{28, 0.3}, {29, 2.5}, {30, 0.4}, {31, 0.3}, {32, 13},  {33, 1.5},
                                       {34, 1.2}, {35, 0.7}, {36, 4.5}, {37, 0.7}, {38, 1.2}, {39, 0.9},
                                       {40, 9},   {41, 0.6}, {42, 2},   {43, 0.8}, {44, 9},   {45, 1.6},
                                       {46, 3.5}, {47, 3.3}, {48, 43}};
    static uint8_t first_byte(uint32_t random) {
        constexpr uint8_t used[] = {0x20, 0x24, 0x26, 0x28, 0x2a, 0x2c};
        return used[random % std::size(used)];
    }
};

template <class Protocol> using Address = std::array<uint8_t, Protocol::bytes>;

// The first 64 bits, more than the longest prefix has.
template <class Protocol> uint64_t front_of(const Address<Protocol> &address) {
    uint64_t front = 0;
    for (size_t i = 0; i < 8; ++i)
        front = front << 8 | (i < Protocol::bytes ? address[i] : 0u);
    return front;
}

uint64_t prefix(uint64_t front, int length) {
    return front & ~uint64_t{0} << (64 - length);
}

template <class Protocol> Address<Protocol> address_of(uint64_t front) {
    Address<Protocol> address{};
    for (size_t i = 0; i < std::min<size_t>(8, Protocol::bytes); ++i)
        address[i] = static_cast<uint8_t>(front >> (56 - 8 * i));
    return address;
}

template <class Protocol> struct Route {
    Address<Protocol> key;
    uint16_t length;
    void *chain;
};

template <class Protocol> struct Internet {
    Internet() {
        std::mt19937_64 random;
        std::vector<double> weights;
        for (const Share &share : Protocol::shares)
            weights.push_back(share.percent);
        std::discrete_distribution<size_t> drawn(weights.begin(), weights.end());
        std::vector<int> lengths(table_size);
        for (int &length : lengths)
            length = Protocol::shares[drawn(random)].length;
        std::sort(lengths.begin(), lengths.end());
        std::unordered_set<uint64_t> seen;
        for (const int length : lengths)
            while (!add(random, length, seen)) {
            }
        for (size_t i = 0; i < table_size; ++i)
            queries.push_back(address_of<Protocol>(i % 10 ? inside_any(random) : anywhere(random)));
        std::shuffle(routes.begin(), routes.end(), random);
    }

    static uint64_t anywhere(std::mt19937_64 &random) {
        return uint64_t{Protocol::first_byte(static_cast<uint32_t>(random()))} << 56 | random() >> 8;
    }
    uint64_t inside_any(std::mt19937_64 &random) const {
        const auto &route = routes[random() % routes.size()];
        return front_of<Protocol>(route.key) | random() >> route.length;
    }

    // Half of them inside one that is no longer.
    bool add(std::mt19937_64 &random, int length, std::unordered_set<uint64_t> &seen) {
        const bool nested = !routes.empty() && random() % 2;
        const uint64_t front = prefix(nested ? inside_any(random) : anywhere(random), length);
        if (!seen.insert(front | static_cast<uint64_t>(length)).second)
            return false;
        routes.push_back({address_of<Protocol>(front), static_cast<uint16_t>(length), nullptr});
        return true;
    }

    std::vector<Route<Protocol>> routes;
    std::vector<Address<Protocol>> queries;
};

template <class Protocol> struct Typed {
    using Table = k42mc::px_table<Route<Protocol>, &Route<Protocol>::chain, &Route<Protocol>::key,
                                  &Route<Protocol>::length>;
    void insert(Route<Protocol> &route) { table.insert(route); }
    const Route<Protocol> *match(const Address<Protocol> &address) {
        return table.search_longest(address);
    }

    Table table{plain};
};

template <class Protocol> struct C {
    C() {
        PXInit(&table, std::malloc, std::free, offsetof(Route<Protocol>, chain),
               offsetof(Route<Protocol>, key), offsetof(Route<Protocol>, length), DS_DUMMY);
    }
    ~C() { PXDeinit(&table); }
    void insert(Route<Protocol> &route) { (void)PXInsert(table, &route); }
    const Route<Protocol> *match(const Address<Protocol> &address) {
        return static_cast<Route<Protocol> *>(PXSearchLMP(table, address.data()));
    }

    PXTable *table;
};

template <class Protocol> struct HashPerLength {
    void insert(Route<Protocol> &route) {
        for (size_t i = 0; i < std::size(tables); ++i)
            if (Protocol::shares[i].length == route.length)
                tables[i][prefix(front_of<Protocol>(route.key), route.length)] = &route;
    }
    const Route<Protocol> *match(const Address<Protocol> &address) {
        const uint64_t front = front_of<Protocol>(address);
        for (size_t i = std::size(tables); i-- > 0;)
            if (const auto at = tables[i].find(prefix(front, Protocol::shares[i].length));
                at != tables[i].end())
                return at->second;
        return nullptr;
    }

    std::unordered_map<uint64_t, const Route<Protocol> *> tables[std::size(Protocol::shares)];
};

template <class Protocol, template <class> class Contestant> void match(benchmark::State &state) {
    Internet<Protocol> internet;
    Contestant<Protocol> table;
    HashPerLength<Protocol> reference;
    for (auto &route : internet.routes)
        table.insert(route), reference.insert(route);
    for (const auto &address : internet.queries)
        if (table.match(address) != reference.match(address))
            return state.SkipWithError("a wrong match");
    for (auto _ : state)
        timed(state, [&] {
            for (const auto &address : internet.queries)
                benchmark::DoNotOptimize(table.match(address));
        });
}

template <class Protocol, template <class> class Contestant> bool contest_of(const char *contestant) {
    const std::string name = std::string(Protocol::family) + "/match/" + contestant;
    benchmark::RegisterBenchmark(name.c_str(), match<Protocol, Contestant>)
        ->UseManualTime()
        ->Arg(table_size);
    return true;
}

template <class Protocol> bool contest_of_all() {
    return contest_of<Protocol, Typed>("typed") && contest_of<Protocol, C>("C") &&
           contest_of<Protocol, HashPerLength>("std::unordered_map for each length");
}

[[maybe_unused]] const bool contests[] = {contest_of_all<IPv4>(), contest_of_all<IPv6>()};

} // namespace
