// Longest-prefix search, beside what one would write with hash tables: one for each length.
#include "bench.h"

#include <k42mc/px.hpp>

#include <bit>
#include <unordered_map>

namespace {

using namespace bench;

// The lengths that most routes have, give or take.
constexpr unsigned shortest = 20, longest = 32;

struct Route {
    Key key;
    uint16_t length;
    void *chain;
    char payload[32];

    // Once in a table, a prefix stays as it is; the length goes with the key.
    void set_length() {
        length = static_cast<uint16_t>(shortest + key % (longest - shortest + 1));
        chain = nullptr;
    }
};

struct Typed {
    using Element = Route;
    explicit Typed(size_t) : table(plain) {}
    void insert(Element &element) {
        element.set_length();
        table.insert(element);
    }
    Element *find(Key key) { return table.search_longest(key); }
    void remove(Element &element) { table.remove(element); }

    k42mc::px_table<Route, &Route::chain, &Route::key, &Route::length> table;
};

struct C {
    using Element = Route;
    explicit C(size_t) {
        PXInit(&table, std::malloc, std::free, offsetof(Route, chain), offsetof(Route, key),
               offsetof(Route, length), DS_DUMMY);
    }
    ~C() { PXDeinit(&table); }
    void insert(Element &element) {
        element.set_length();
        (void)PXInsert(table, &element);
    }
    void *find(Key key) { return PXSearchLMP(table, &key); }
    void remove(Element &element) { PXRemove(table, &element); }

    PXTable *table;
};

struct HashPerLength {
    using Element = Route;
    explicit HashPerLength(size_t) {}

    // The first bits of a key, in the order of its bytes.
    static Key prefix(Key key, unsigned length) {
        static_assert(std::endian::native == std::endian::little);
        return key & __builtin_bswap32(~Key() << (32 - length));
    }
    void *&chain(const Element &element) {
        return tables[element.length - shortest][prefix(element.key, element.length)];
    }

    void insert(Element &element) {
        element.set_length();
        element.chain = std::exchange(chain(element), &element);
    }
    void *find(Key key) {
        for (unsigned length = longest; length >= shortest; --length) {
            const auto &table = tables[length - shortest];
            if (const auto at = table.find(prefix(key, length)); at != table.end())
                return at->second;
        }
        return nullptr;
    }
    void remove(Element &element) {
        void **link = &chain(element);
        void **const head = link;
        while (*link != &element)
            link = &static_cast<Element *>(*link)->chain;
        *link = element.chain;
        if (!*head)
            tables[element.length - shortest].erase(prefix(element.key, element.length));
    }

    std::unordered_map<Key, void *> tables[longest - shortest + 1];
};

[[maybe_unused]] const bool contests[] = {
    contest<Typed>("PX", "typed"),
    contest<C>("PX", "C"),
    contest<HashPerLength>("PX", "std::unordered_map for each length"),
};

} // namespace
