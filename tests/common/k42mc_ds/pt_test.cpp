#include <k42mc/byteorder.h>
#include <k42mc/pt.hpp>

#include "capture.h"
#include "ordered_suite.h"
#include "small_stack.h"

#include <array>
#include <deque>
#include <set>
#include <stdio_ext.h>
#include <sys/mman.h>

using namespace k42mc;

namespace {

using Key = std::array<uint8_t, 16>; // bits past a tree's keyBits are arbitrary

struct Element {
    Key front; // the key field is this
    PTNode node;
    Key back; // or this
    const void *slots[4];
    Key key;
};

bool bit_of(const Key &key, int bit) {
    return key[size_t(bit) / 8] >> (7 - bit % 8) & 1;
}

bool leads_down(PTNode *from, PTNode *to) {
    return to != from && to->bit >= from->bit;
}

Element *element_of(PTNode *node) {
    return reinterpret_cast<Element *>(reinterpret_cast<char *>(node) - offsetof(Element, node));
}

// The typed front end for elements with one of the two key fields.
struct Typed {
    int bits;
    size_t offset; // of the key field
    Element *(*insert)(PTTree *, Element &);
    void (*remove)(PTTree *, Element &);
    Element *(*next)(PTTree *, Element &);
    Element *(*prev)(PTTree *, Element &);
    Element *(*remove_key)(PTTree *, const Key &);
    Element *(*search)(PTTree *, const Key &);
    Element *(*next_by_key)(PTTree *, const Key &);

    friend std::ostream &operator<<(std::ostream &out, const Typed &typed) { return out << typed.bits; }
};

template <int bits, auto Field> Typed typed(size_t offset) {
    using View = pt_view<Element, &Element::node, Field, bits>;
    return {bits,
            offset,
            [](PTTree *tree, Element &element) { return View(tree).insert(element); },
            [](PTTree *tree, Element &element) { View(tree).remove(element); },
            [](PTTree *tree, Element &element) { return View(tree).next(element); },
            [](PTTree *tree, Element &element) { return View(tree).prev(element); },
            [](PTTree *tree, const Key &key) { return View(tree).remove_key(key); },
            [](PTTree *tree, const Key &key) { return View(tree).search(key); },
            [](PTTree *tree, const Key &key) { return View(tree).next_by_key(key); }};
}

template <int bits> Typed front() {
    return typed<bits, &Element::front>(offsetof(Element, front));
}

template <int bits> Typed back() {
    return typed<bits, &Element::back>(offsetof(Element, back));
}

// A tree, what it should hold, and a check that it does after each operation. Where the typed front end
// can take part, it does so by turns with the C functions.
struct Tree {
    Tree(const Typed &its, int keyIndirections) : view(its), indirections(keyIndirections) {
        EXPECT_EQ(PTInit(&tree, hooks::alloc, hooks::dealloc, offsetof(Element, node), view.offset,
                         int16_t(view.bits), uint8_t(indirections), note_and_wreck<Element>),
                  DS_OK);
        verify();
    }
    ~Tree() { PTDeinit(&tree); }

    bool by_turns() { return !indirections && random() % 2; }

    Element *insert(const Key &key) {
        Element *element = &pool.emplace_back();
        fill(*element, key);
        const auto [at, added] = model.try_emplace(shortened(key), element);
        const bool asks = random() % 4;
        void *existing = this;
        if (asks && by_turns())
            existing = view.insert(tree, *element);
        else
            PTInsert(tree, element, asks ? &existing : nullptr);
        EXPECT_EQ(existing, !asks ? this : added ? nullptr : (void *)at->second);
        if (added)
            cursor = cached = nullptr;
        verify();
        return at->second;
    }

    void remove(const Key &key, bool byKey, bool destroy) {
        Element *const expected = stored(key);
        hooks::start();
        if (byKey && destroy)
            EXPECT_EQ(PTRemoveAndDestroyByKey(tree, argument(key)), expected ? DS_OK : DS_FAILURE);
        else if (byKey)
            EXPECT_EQ(by_turns() ? view.remove_key(tree, key) : PTRemoveByKey(tree, argument(key)),
                      expected);
        else if (expected && !destroy && by_turns())
            view.remove(tree, *expected);
        else if (expected)
            (destroy ? PTRemoveAndDestroy : PTRemove)(tree, expected);
        EXPECT_EQ(hooks::calls, expected && destroy ? "X" : "");
        if (expected && (cursor == &expected->node || cached == &expected->node))
            cursor = cached = nullptr;
        model.erase(shortened(key));
        verify();
    }

    void destroy() {
        hooks::Blocks expected;
        if (!model.empty())
            post_order(tree->head->left, expected);
        hooks::start();
        PTDestroy(tree);
        EXPECT_EQ(hooks::destroyed, expected);
        model.clear();
        cursor = cached = nullptr;
        verify();
    }

    // Walks on from some element. The cache is filled where the next one hangs on the left of a node.
    void step() {
        auto at = model.begin();
        std::advance(at, model.empty() ? 0 : random() % model.size());
        for (size_t steps = random() % 5; steps && at != model.end(); --steps) {
            PTNode *const node = &at->second->node;
            Element *const next = ++at == model.end() ? nullptr : at->second;
            if (cursor != node && next && onLeft.count(&next->node)) {
                ASSERT_NE(std::next(at), model.end());
                cursor = &next->node;
                cached = &std::next(at)->second->node;
            }
            ASSERT_EQ(PTNext(tree, element_of(node)), next);
            ASSERT_EQ(tree->cursor, cursor);
            ASSERT_EQ(tree->head->right, cached);
        }
    }

    void verify() {
        PTNode *const head = tree->head;
        ASSERT_EQ(PTIsEmpty(tree), model.empty());
        ASSERT_EQ(PTAny(tree), model.empty() ? nullptr : element_of(head->left));
        std::vector<PTNode *> found, expected{head};
        onLeft.clear();
        ASSERT_NO_FATAL_FAILURE(walk(head, head->left, found));
        std::stable_partition(found.begin(), found.end(), [=](PTNode *node) { return node == head; });
        Element *before = nullptr;
        for (auto &[key, element] : model) {
            expected.push_back(&element->node);
            Key other = key, odd = key;
            other[0] ^= 0x80, odd[random() % 16] ^= uint8_t(1u << random() % 8);
            for (const Key &each : {key, other, odd}) {
                ASSERT_EQ(PTSearch(tree, argument(each)), stored(each));
                ASSERT_EQ(PTNextByKey(tree, argument(each)), above(each));
            }
            ASSERT_EQ(PTPrev(tree, element), before);
            if (!indirections) {
                ASSERT_EQ(view.search(tree, odd), stored(odd));
                ASSERT_EQ(view.next_by_key(tree, odd), above(odd));
                ASSERT_EQ(view.next(tree, *element), above(key));
                ASSERT_EQ(view.prev(tree, *element), before);
            }
            before = element;
        }
        ASSERT_EQ(found, expected);
        ASSERT_EQ(PTFirst(tree), model.empty() ? nullptr : model.begin()->second);
        ASSERT_EQ(PTLast(tree), before);
        for (const int order : {0, 1, -1})
            ASSERT_NO_FATAL_FAILURE(expect_stop(order, expected));
        hooks::start();
        PTVisit(tree, 0, hooks::destroy);
        PTVisit(tree, -1, hooks::destroy);
        for (size_t i = 1; i < expected.size(); ++i) {
            ASSERT_EQ(hooks::destroyed.at(i - 1), element_of(expected[i]));
            ASSERT_EQ(hooks::destroyed.at(2 * model.size() - i), element_of(expected[i]));
        }
        ASSERT_EQ(tree->cursor, cursor);
        ASSERT_EQ(head->right, cached);
    }

    // The visit ends at the second element, if there is one. The nodes begin with the head.
    void expect_stop(int order, const std::vector<PTNode *> &nodes) {
        const auto stop_at_second = [](void *element, void *result) -> int32_t {
            hooks::destroy(element);
            return hooks::calls.size() == 2 ? *static_cast<int32_t *>(result) : 0;
        };
        int32_t seven = 7;
        const size_t count = nodes.size() - 1;
        hooks::start();
        ASSERT_EQ(PTVisitWithArg(tree, order, stop_at_second, &seven), count < 2 ? 0 : 7);
        ASSERT_EQ(hooks::destroyed.size(), std::min<size_t>(count, 2));
        for (size_t i = 0; i < hooks::destroyed.size(); ++i)
            ASSERT_EQ(hooks::destroyed[i], element_of(nodes[order ? count - i : i + 1]));
    }

    // Appends what a link and those below it lead up to, left to right.
    void walk(PTNode *from, PTNode *node, std::vector<PTNode *> &found) {
        if (!leads_down(from, node)) {
            if (node == from->left)
                onLeft.insert(node);
            return found.push_back(node);
        }
        const Key own = key_of(node);
        ASSERT_TRUE(node->bit > from->bit || own == Key{} || key_of(from) == Key{});
        const size_t before = found.size();
        for (PTNode *next : {node->left, node->right}) {
            size_t i = found.size();
            ASSERT_NO_FATAL_FAILURE(walk(node, next, found));
            for (; i < found.size(); ++i) {
                ASSERT_TRUE((found[i] == tree->head && own == Key{}) ||
                            bit_of(key_of(found[i]), node->bit) == (next == node->right));
            }
        }
        ASSERT_EQ(std::count(found.begin() + ptrdiff_t(before), found.end(), node), 1);
    }

    void post_order(PTNode *node, hooks::Blocks &order) {
        for (PTNode *next : {node->left, node->right})
            if (leads_down(node, next))
                post_order(next, order);
        order.push_back(element_of(node));
    }

    Element *stored(const Key &key) {
        const auto at = model.find(shortened(key));
        return at == model.end() ? nullptr : at->second;
    }

    Element *above(const Key &key) {
        const auto at = model.upper_bound(shortened(key));
        return at == model.end() ? nullptr : at->second;
    }

    Key key_of(PTNode *node) { return node == tree->head ? Key{} : shortened(element_of(node)->key); }

    Key shortened(Key key) const {
        for (int bit = view.bits; bit < 128; ++bit)
            key[size_t(bit) / 8] &= uint8_t(~(0x80 >> bit % 8));
        return key;
    }

    void *fill(Element &element, const Key &key) {
        element.key = key;
        const void *target = &element.key;
        for (int i = 1; i < indirections; ++i) {
            element.slots[i] = target;
            target = &element.slots[i];
        }
        return std::memcpy(reinterpret_cast<char *>(&element) + view.offset,
                           indirections ? &target : target, indirections ? sizeof target : sizeof key);
    }

    const void *argument(const Key &key) { return fill(scratch, key); }

    const Typed view;
    Random random;
    PTTree *tree;
    const int indirections;
    std::map<Key, Element *> model;
    std::set<PTNode *> onLeft; // those with the link that leads up to them on the left of a node
    std::deque<Element> pool;
    Element scratch;
    PTNode *cursor = nullptr, *cached = nullptr;
};

Key low_bit(int bits) {
    Key key{};
    key[size_t(bits - 1) / 8] = uint8_t(0x80 >> (bits - 1) % 8);
    return key;
}

class PTModel : public testing::TestWithParam<Typed> {};

TEST_P(PTModel, Agrees) {
    for (int indirections = 0; indirections < 4; ++indirections) {
        Tree tree(GetParam(), indirections);
        Random &random = tree.random;
        for (int step = 0; step < 600 && !testing::Test::HasFailure(); ++step) {
            Key key = random() % 4 ? Key{} : low_bit(GetParam().bits); // those two are what is special
            for (size_t flips = random() % 3; flips; --flips)
                key[random() % (random() % 2 ? 16 : 2)] ^= uint8_t(1u << random() % 8);
            if (random() % 2)
                tree.step();
            // Every order of few keys, and now and then many.
            if (const size_t operation = random() % 100; operation < 1)
                tree.destroy();
            else if (operation < (step % 200 < 100 ? 55 : 35))
                tree.insert(key);
            else
                tree.remove(key, random() % 2, random() % 2);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, PTModel,
                         testing::Values(front<1>(), back<12>(), front<23>(), back<32>(), front<55>(),
                                         back<64>(), front<64>(), back<128>(), front<128>()),
                         [](const auto &suite) { return std::to_string(suite.index); });

// Keys that are numbers, so that 0 and 1 are the two that are special.
struct Item {
    struct Key {
        explicit Key(uint32_t number) : bytes(K42MC_BE32(number)) {}
        uint32_t bytes;
    };

    explicit Item(Key itsKey) : key(itsKey) {}
    Key key;
    PTNode node;
};

struct FrontEnd : pt_tree<Item, &Item::node, &Item::key> {
    using Element = Item;

    FrontEnd() : owner({hooks::alloc, hooks::dealloc, note_and_wreck<Item>}) {}
    void remove_and_destroy(Item &element) { PTRemoveAndDestroy(record(), &element); }
    int32_t remove_and_destroy_key(Item::Key key) { return PTRemoveAndDestroyByKey(record(), &key); }
    void verify(const std::vector<Item *> &) {}
};

using Trees = testing::Types<FrontEnd>;
INSTANTIATE_TYPED_TEST_SUITE_P(PT, Ordered, Trees);

void expect_node(const PTNode &node, int bit, const PTNode *left, const PTNode *right) {
    EXPECT_EQ(node.bit, bit);
    EXPECT_EQ(node.left, left);
    EXPECT_EQ(node.right, right);
}

std::string statistics(const char *entries, const char *greatest, const char *average) {
    return std::string("> number of entries : ") + entries + "\n> max height        : " + greatest +
           "\n> average height    : " + average + "\n";
}

void print(const PTTree *tree) {
    PTInfo(tree);
    EXPECT_EQ(__fpending(stdout), 0u);
    PTDump(tree);
    EXPECT_EQ(__fpending(stdout), 0u);
}

std::string printed(const std::string &info, const std::string &dump) {
    return "===========PT Info=========\n" + info + "===========PT Dump=========\n" + dump;
}

void expect_printed(const PTTree *tree, const std::string &info, const std::string &dump) {
    EXPECT_EQ(captured_stdout([=] { print(tree); }), printed(info, dump));
}

TEST(PTStructure, IsExact) {
    for (const bool byKey : {false, true}) {
        Tree tree(back<32>(), 0);
        PTNode *const head = tree.tree->head;
        PTNode &zero = tree.insert({})->node;
        expect_node(zero, 31, &zero, head);
        PTNode &one = tree.insert({0, 0, 0, 1})->node;
        expect_node(zero, 31, &zero, &one);
        expect_node(one, 31, head, &one);
        expect_printed(tree.tree, statistics("2", "2", "1.500000"), " 0[31]\n     1[31]\n");
        tree.destroy();
        tree.insert({0, 0, 0, 1}), tree.insert({});
        expect_printed(tree.tree, statistics("2", "2", "1.500000"), "     0[31]\n 1[31]\n");
        tree.destroy();
        expect_printed(tree.tree, ">>>>> EMPTY <<<<<\n", ">>>>> EMPTY <<<<<\n");

        PTNode &a = tree.insert({10, 0, 0, 1})->node, &b = tree.insert({10, 0, 0, 2})->node;
        PTNode &c = tree.insert({0xc0, 0xa8, 0, 1})->node;
        EXPECT_EQ(head->left, &c);
        expect_node(c, 0, &a, &c);
        expect_node(a, 4, head, &b);
        expect_node(b, 30, &a, &b);
        expect_printed(tree.tree, statistics("3", "3", "2.333333"),
                       "           a000001[4]\n           a000002[30]\n c0a80001[0]\n");
        tree.remove({10, 0, 0, 1}, byKey, false); // its own child leads up to it
        expect_node(c, 0, &b, &c);
        expect_node(b, 4, head, &b);
    }
}

TEST(PTDump, ShowsTheFirstBytesOfKeys) {
    for (const auto &[bits, shown] :
         std::initializer_list<std::pair<int16_t, const char *>>{{1, "87000000"},
                                                                 {8, "87000000"},
                                                                 {9, "87650000"},
                                                                 {24, "87650000"},
                                                                 {25, "87654321"},
                                                                 {40, "87654321"}}) {
        PTTree *tree;
        PTInit(&tree, nullptr, nullptr, offsetof(Element, node), 0, bits, 0, DS_DUMMY);
        Element element{.front{0x87, 0x65, 0x43, 0x21, 0xff, 0xff}, .node{}, .back{}, .slots{}, .key{}};
        PTInsert(tree, &element, nullptr);
        expect_printed(tree, statistics("1", "1", "1.000000"), std::string(" ") + shown + "[0]\n");
        PTDeinit(&tree);
    }
}

TEST(PTInit, RefusesKeysWithoutBits) {
    for (const int16_t bits : {0, -1, -32768}) {
        hooks::start();
        auto *tree = reinterpret_cast<PTTree *>(&hooks::calls);
        EXPECT_EQ(PTInit(&tree, hooks::alloc, hooks::dealloc, 0, 16, bits, 0, nullptr), DS_FAILURE);
        EXPECT_EQ(tree, nullptr);
        EXPECT_EQ(hooks::calls, "");
    }
}

void *walk_and_destroy(void *given) {
    auto *const tree = static_cast<PTTree *>(given);
    PTVisit(tree, 0, hooks::destroy);
    PTVisit(tree, 1, hooks::destroy);
    print(tree);
    return PTDestroy(tree), nullptr;
}

// A path through every bit of the longest key. Keys are windows into eight buffers with one bit set.
TEST(PTWalks, NeedNoStackForDeepTrees) {
    constexpr int bits = 32767, middle = 4096;
    struct Deep {
        const uint8_t *key;
        PTNode node;
    };
    std::vector<std::array<uint8_t, 2 * middle>> buffers(8);
    std::vector<Deep> elements(bits);
    hooks::Blocks expected;
    std::string dump;
    hooks::start();
    PTTree *tree;
    PTInit(&tree, nullptr, nullptr, offsetof(Deep, node), 0, bits, 1, hooks::destroy);
    for (size_t i = bits; i-- > 0;) { // upwards, so that inserting takes no long descent
        buffers[i % 8][middle] = uint8_t(0x80 >> i % 8);
        elements[i].key = &buffers[i % 8][middle - i / 8];
        PTInsert(tree, &elements[i], nullptr);
        expected.push_back(&elements[i]);
        char line[32]; // the field holds a pointer
        snprintf(line, sizeof line, "%x[%zu]\n", K42MC_BE32(uintptr_t(elements[i].key)), i);
        dump.append(i % 256 ? 6 * (i % 256) - 1 : 1, ' ').append(line);
    }
    const std::string text = captured_stdout([=] { on_small_stack(walk_and_destroy, tree); });
    const std::string info = statistics("32767", "255", "127.503891"); // depths count modulo 256
    EXPECT_TRUE(text == printed(info, dump));
    expected.insert(expected.end(), expected.rbegin(), expected.rend());
    expected.insert(expected.end(), expected.begin(), expected.begin() + bits);
    EXPECT_TRUE(hooks::destroyed == expected);
    PTDeinit(&tree);
}

// A page of which nothing behind may be read.
uint8_t *end_of_page() {
    const long size = sysconf(_SC_PAGESIZE);
    void *const pages =
        mmap(nullptr, 2 * size_t(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uint8_t *const end = static_cast<uint8_t *>(pages) + size;
    mprotect(end, size_t(size), PROT_NONE);
    return end;
}

// Of keys that fit into a word, whose length in bits is known when compiled.
template <int length> void expect_words(const uint8_t *a, const uint8_t *b, int start, int first) {
    const bits::key<length> x(a), y(b);
    ASSERT_EQ(bits::bit_at(x, start), bits::bit_at(a, start));
    ASSERT_EQ(bits::DSFirstDiffBit(x, y, 0, length), first);
    ASSERT_EQ(bits::DSFirstDiffBit(x, y, 0, start + 1), std::min(start + 1, first));
    ASSERT_EQ(bits::DSKeyDiffers(x, y, length), first < length);
}

template <int... lengths> constexpr auto expect_words_by_length(std::integer_sequence<int, lengths...>) {
    return std::array{expect_words<lengths + 1>...};
}

constexpr auto by_length = expect_words_by_length(std::make_integer_sequence<int, 8 * sizeof(size_t)>());

TEST(PTKeys, AreNotReadBeyondTheirEnd) {
    Random random;
    uint8_t *const ends[] = {end_of_page(), end_of_page()};
    for (int round = 0; round < 100000; ++round) {
        const int limit = 1 + int(random() % 200);
        const size_t size = (size_t(limit) + 7) / 8;
        uint8_t *const a = ends[0] - size, *const b = ends[1] - size;
        std::generate(a, a + size, std::ref(random));
        std::copy(a, a + size, b);
        for (size_t flips = random() % 3; flips; --flips)
            b[random() % size] ^= uint8_t(1u << random() % 8);
        int expected = 0;
        while (expected < limit && bits::bit_at(a, expected) == bits::bit_at(b, expected))
            ++expected;
        const int start = int(random() % unsigned(std::min(expected + 1, limit)));
        ASSERT_EQ(bits::DSFirstDiffBit(a, b, start, limit), expected);
        ASSERT_EQ(bits::DSKeyDiffers(a, b, limit), expected < limit);
        if (size_t(limit) <= by_length.size()) {
            ASSERT_NO_FATAL_FAILURE(by_length[size_t(limit) - 1](a, b, start, expected));
        }
    }
}

} // namespace
