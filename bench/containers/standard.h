// The standard containers that search by key. They hold pointers to the elements.
#pragma once

#include "bench.h"

namespace bench {

// Hash tables are as full as ours, which has at most so many buckets.
inline constexpr float most_load = 8, most_buckets = 65521;

template <class Container> void fill_like_ours(Container &container, size_t n) {
    if constexpr (requires { container.max_load_factor(most_load); })
        container.max_load_factor(std::max(most_load, float(n) / most_buckets));
}

template <class Set> struct StdSet {
    using Element = bench::Element<no_link>;
    explicit StdSet(size_t n) { fill_like_ours(set, n); }
    void insert(Element &element) { set.insert(&element); }
    Element *find(Key key) {
        const auto at = set.find(key);
        return at == set.end() ? nullptr : *at;
    }
    template <class F> void visit(F f) {
        for (Element *element : set)
            f(*element);
    }
    void remove(Element &element) { set.erase(&element); }

    Set set;
};

template <class Map> struct StdMap {
    using Element = bench::Element<no_link>;
    explicit StdMap(size_t n) { fill_like_ours(map, n); }
    void insert(Element &element) { map.emplace(element.key, &element); }
    Element *find(Key key) {
        const auto at = map.find(key);
        return at == map.end() ? nullptr : at->second;
    }
    template <class F> void visit(F f) {
        for (auto &[key, element] : map)
            f(*element);
    }
    void remove(Element &element) { map.erase(element.key); }

    Map map;
};

} // namespace bench
