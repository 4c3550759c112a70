// The standard containers that search by key. They hold pointers to the elements.
#pragma once

#include "bench.h"

namespace bench {

template <class Set> struct StdSet {
    using Element = bench::Element<no_link>;
    explicit StdSet(size_t) {}
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
    explicit StdMap(size_t) {}
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
