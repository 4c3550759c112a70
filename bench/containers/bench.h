// What all contestants go through. A contestant is an adapter around a container: a class that is made
// for a number of elements, holds none at first, has an Element type, and of these what it can do:
//   insert(Element &)   as the family inserts
//   find(Key)           returns the element, or null
//   visit(f)            calls f(Element &) for each, in the quickest way there is
//   remove(Element &)   removes this element, which is there
//   pop()               removes the first element, in the container's order
//   change(Element &)   puts an element right whose key has changed
// Each contestant gets the same keys in the same order, in elements that differ by their links only.
// Containers that are no part of their elements hold pointers to them.
#pragma once

#include <benchmark/benchmark.h>

#include <k42mc/front_end.hpp>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace bench {

using Key = uint32_t;

template <class Link> struct Element {
    Key key;
    Link link;
    char payload[32];
};

struct no_link {};

// For C functions, ours and others'.
inline int32_t compare(const void *a, const void *b) {
    const Key x = *static_cast<const Key *>(a), y = *static_cast<const Key *>(b);
    return x < y ? -1 : x > y;
}

// For C functions that walk with a callback and its argument.
template <class Element, class F> int32_t call(void *element, void *function) {
    (*static_cast<F *>(function))(*static_cast<Element *>(element));
    return 0;
}

// Ours get their memory from where the others get theirs, not from the checked allocator.
inline const k42mc::ds_hooks plain{std::malloc, std::free};

struct Workload {
    std::vector<Key> keys;     // all different
    std::vector<size_t> order; // of searches, changes and removals
};

inline const Workload &workload(size_t n) {
    static std::map<size_t, Workload> made;
    Workload &load = made[n];
    if (load.keys.empty()) {
        std::mt19937 random;
        for (std::unordered_set<Key> seen; load.keys.size() < n;)
            if (const Key key = random(); seen.insert(key).second)
                load.keys.push_back(key);
        load.order.resize(n);
        std::iota(load.order.begin(), load.order.end(), size_t{0});
        std::shuffle(load.order.begin(), load.order.end(), random);
    }
    return load;
}

// The elements, and a container that is filled with them on demand.
template <class Adapter> struct Round {
    using Element = typename Adapter::Element;

    explicit Round(benchmark::State &state)
        : load(workload(static_cast<size_t>(state.range(0)))), elements(load.keys.size()) {
        for (size_t i = 0; i < elements.size(); ++i)
            elements[i].key = load.keys[i];
        for (const size_t i : load.order)
            shuffled.push_back(&elements[i]);
    }

    void fill(Adapter &container) {
        for (Element &element : elements)
            container.insert(element);
    }

    const Workload &load;
    std::vector<Element> elements;
    std::vector<Element *> shuffled;
};

template <class Work> void timed(benchmark::State &state, Work work) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    work();
    const std::chrono::duration<double> taken = Clock::now() - start;
    state.SetIterationTime(taken.count());
}

// Times work(container) on a container that is new each time.
template <class Adapter, class Work>
void on_new(benchmark::State &state, Round<Adapter> &round, bool filled, Work work) {
    for (auto _ : state) {
        Adapter container(round.elements.size());
        if (filled)
            round.fill(container);
        timed(state, [&] { work(container); });
    }
}

// Times work(container) on one that stays as it is.
template <class Adapter, class Work>
void on_filled(benchmark::State &state, Round<Adapter> &round, Work work) {
    Adapter container(round.elements.size());
    round.fill(container);
    for (auto _ : state)
        timed(state, [&] { work(container); });
}

template <class Adapter> void insert(benchmark::State &state) {
    Round<Adapter> round(state);
    on_new(state, round, false, [&](Adapter &container) { round.fill(container); });
}

template <class Adapter> void find(benchmark::State &state) {
    Round<Adapter> round(state);
    on_filled(state, round, [&](Adapter &container) {
        for (const size_t i : round.load.order)
            if (!container.find(round.load.keys[i]))
                return state.SkipWithError("lost an element");
    });
}

template <class Adapter> void iterate(benchmark::State &state) {
    Round<Adapter> round(state);
    on_filled(state, round, [&](Adapter &container) {
        uint64_t sum = 0;
        container.visit([&](auto &element) { sum += element.key; });
        benchmark::DoNotOptimize(sum);
    });
}

template <class Adapter> void remove(benchmark::State &state) {
    Round<Adapter> round(state);
    on_new(state, round, true, [&](Adapter &container) {
        for (auto *element : round.shuffled)
            container.remove(*element);
    });
}

template <class Adapter> void pop(benchmark::State &state) {
    Round<Adapter> round(state);
    on_new(state, round, true, [&](Adapter &container) {
        for (size_t n = round.elements.size(); n; --n)
            container.pop();
    });
}

template <class Adapter> void change(benchmark::State &state) {
    Round<Adapter> round(state);
    on_filled(state, round, [&](Adapter &container) {
        for (auto *element : round.shuffled) {
            element->key ^= 0x9e3779b9; // every second time round the keys are what they were
            container.change(*element);
        }
    });
}

// Registers what the adapter can do, as <family>/<operation>/<contestant>/<elements>.
template <class Adapter> bool contest(const std::string &family, const std::string &contestant) {
    using Element = typename Adapter::Element;
    const auto add = [&](const char *operation, void (*function)(benchmark::State &)) {
        const std::string name = family + "/" + operation + "/" + contestant;
        benchmark::RegisterBenchmark(name.c_str(), function)
            ->UseManualTime()
            ->Arg(1000)
            ->Arg(100000)
            ->Arg(1000000);
    };
    add("insert", insert<Adapter>);
    if constexpr (requires(Adapter container) { container.find(Key()); })
        add("find", find<Adapter>);
    if constexpr (requires(Adapter container) { container.visit([](Element &) {}); })
        add("iterate", iterate<Adapter>);
    if constexpr (requires(Adapter container, Element element) { container.remove(element); })
        add("remove", remove<Adapter>);
    if constexpr (requires(Adapter container) { container.pop(); })
        add("pop", pop<Adapter>);
    if constexpr (requires(Adapter container, Element element) { container.change(element); })
        add("change", change<Adapter>);
    return true;
}

} // namespace bench
