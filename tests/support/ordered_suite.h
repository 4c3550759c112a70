// What the ordered families with unique keys must do, run against a map: for the C functions and for the
// typed front end alike. The tree under test has a front end's names (insert, search, remove, ...;
// begin, end and remove_first where the family has them), and beside them
//   Element                made from a Key that it defines, which is made from a uint32_t and ordered so
//   Tree()                 creates it with the hooks alloc, dealloc and note_and_wreck<Element>
//   remove_and_destroy(element), remove_and_destroy_key(key)
//   visit(order, f)        0 ascending, 1 descending; int32_t f(Element &)
//   verify(elements)       checks the family's own structure against the elements in order
#pragma once

#include "failing_hooks.h"
#include "random.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <new>

template <class Element> void note_and_wreck(void *element) {
    hooks::destroy(element);
    std::memset(element, 0xa5, sizeof(Element));
}

template <class Tree> struct OrderedRun {
    using Element = typename Tree::Element;
    using Key = typename Element::Key;
    using Elements = std::vector<Element *>;

    // Keys that lie close together and keys that lie far apart, two elements each.
    explicit OrderedRun(unsigned keys) {
        for (uint32_t i = 0; i < keys; ++i)
            numbers.push_back(i % 2 ? i : i * 0x9e3779b1);
        for (unsigned i = 0; i < 2 * keys; ++i)
            pool.emplace_back(Key(numbers[i % keys]));
    }

    // By turns most steps insert and most steps remove.
    void steps(unsigned count, unsigned verifyEvery) {
        for (unsigned i = 0; i < count && !testing::Test::HasFailure(); ++i) {
            const unsigned operation = random() % 200, inserts = i / numbers.size() % 2 ? 70 : 130;
            hooks::start();
            operation == 0 ? clear() : operation < inserts ? insert(random() % pool.size()) : remove();
            if (i % verifyEvery == 0)
                verify();
        }
    }

    void insert(size_t i) {
        const auto [at, added] = model.try_emplace(numbers[i % numbers.size()], &pool[i]);
        if (added || at->second != &pool[i]) { // else it is linked already
            EXPECT_EQ(tree.insert(pool[i]), added ? nullptr : at->second);
        }
    }

    void remove() {
        const uint32_t number =
            random() % 4 || model.empty() ? numbers[random() % numbers.size()] : model.begin()->first;
        Element *const expected = present(number);
        if constexpr (requires { tree.remove_first(); })
            if (expected == (model.empty() ? nullptr : model.begin()->second) && random() % 2) {
                EXPECT_EQ(tree.remove_first(), expected);
                return void(model.erase(number));
            }
        const bool byKey = random() % 2, destroys = random() % 2;
        if (byKey && destroys)
            ASSERT_EQ(tree.remove_and_destroy_key(Key(number)), expected ? DS_OK : DS_FAILURE);
        else if (byKey)
            ASSERT_EQ(tree.remove_key(Key(number)), expected);
        else if (expected)
            destroys ? tree.remove_and_destroy(*expected) : tree.remove(*expected);
        expect_destroyed(expected && destroys ? Elements{expected} : Elements{});
        model.erase(number);
    }

    void clear() {
        tree.clear();
        expect_destroyed(ascending());
        model.clear();
    }

    // In whatever order; makes them anew.
    void expect_destroyed(const Elements &expected) {
        EXPECT_TRUE(std::is_permutation(expected.begin(), expected.end(), hooks::destroyed.begin(),
                                        hooks::destroyed.end()));
        for (Element *element : expected)
            new (element) Element(Key(numbers[size_t(element - pool.data()) % numbers.size()]));
    }

    void verify() {
        const Elements up = ascending(), down(up.rbegin(), up.rend());
        ASSERT_NO_FATAL_FAILURE(tree.verify(up));
        ASSERT_EQ(tree.empty(), up.empty());
        ASSERT_EQ(std::count(up.begin(), up.end(), tree.any()), !up.empty());
        Elements next, prev;
        for (Element *at = tree.first(); at && next.size() <= up.size(); at = tree.next(*at))
            next.push_back(at);
        for (Element *at = tree.last(); at && prev.size() <= up.size(); at = tree.prev(*at))
            prev.push_back(at);
        ASSERT_EQ(next, up);
        ASSERT_EQ(prev, down);
        if constexpr (requires { tree.begin(); }) {
            const auto same = [](Element &element, Element *expected) { return &element == expected; };
            ASSERT_TRUE(std::equal(tree.begin(), tree.end(), up.begin(), up.end(), same));
            for (auto at = tree.end(); at != tree.begin(); next.pop_back())
                ASSERT_EQ(&*--at, next.back());
        }
        for (const size_t stop : {up.size() + 1, 1 + random() % (up.size() + 1)}) {
            expect_visits(0, up, stop);
            expect_visits(1, down, stop);
        }
        for (const uint32_t number : numbers) {
            ASSERT_EQ(tree.search(Key(number)), present(number));
            for (const uint32_t near : {number - 1, number, number + 1}) {
                const auto above = model.upper_bound(near);
                ASSERT_EQ(tree.next_by_key(Key(near)), above == model.end() ? nullptr : above->second);
            }
        }
    }

    // The visit returns something other than 0 at the element with that number, counted from 1.
    void expect_visits(int order, Elements expected, size_t stop) {
        Elements found;
        const int32_t result = tree.visit(order, [&](Element &element) -> int32_t {
            found.push_back(&element);
            return found.size() == stop ? -7 : 0;
        });
        ASSERT_EQ(result, stop <= expected.size() ? -7 : 0);
        expected.resize(std::min(stop, expected.size()));
        ASSERT_EQ(found, expected);
    }

    Elements ascending() const {
        Elements elements;
        for (const auto &[number, element] : model)
            elements.push_back(element);
        return elements;
    }

    Element *present(uint32_t number) const {
        const auto at = model.find(number);
        return at == model.end() ? nullptr : at->second;
    }

    Random random;
    std::vector<uint32_t> numbers;
    std::vector<Element> pool;
    std::map<uint32_t, Element *> model;
    Tree tree;
};

template <class Tree> class Ordered : public testing::Test {};
TYPED_TEST_SUITE_P(Ordered);

TYPED_TEST_P(Ordered, AgreesWithModel) {
    for (const unsigned keys : {1, 2, 3, 5, 8, 13, 30})
        OrderedRun<TypeParam>(keys).steps(500, 1);
    OrderedRun<TypeParam>(2000).steps(40000, 1999);
}

REGISTER_TYPED_TEST_SUITE_P(Ordered, AgreesWithModel);
